// Retrieval of the packets of a time window as one capture file: the
// engine behind `GET /v1/packets` and `faitra extract`, usable by any
// program that has a catalogue or a list of captures.
//
// A retrieval merges the packets of the window from its captures in time
// order (packet_merge), keeps those the BPF filter passes (packet_filter)
// and lays them out as one file (packet_output: classic pcap when the
// captures share a link type, pcapng otherwise), stopping at the packet
// and byte limits. Everything that can refuse the request happens in the
// constructor, before the first byte: the captures are opened and probed
// and the filter is compiled for each link type (a filter libpcap refuses
// raises filter_error with libpcap's message). produce() then hands out
// the file piece by piece, so that the caller can stream it and stop at
// any point by simply dropping the object; that closes every descriptor.
//
// Thread-safety: one thread at a time; nothing is shared between
// retrievals.
#pragma once

#include <faitra/host/packet_filter.hpp>
#include <faitra/host/packet_merge.hpp>
#include <faitra/host/packet_output.hpp>

#include <csl/fs_cache.hpp>

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_host {

struct retrieval_request {
  uint64_t start_ns = 0;  // the closed window [start_ns, end_ns]
  uint64_t end_ns = 0;
  std::string filter;  // BPF expression; empty keeps every packet
  uint64_t limit_packets = std::numeric_limits<uint64_t>::max();
  // The file stops before the first packet that would take it beyond this
  // many bytes; its header is always written.
  uint64_t limit_bytes = std::numeric_limits<uint64_t>::max();
};

// The filter cannot be compiled; what() is libpcap's message.
class filter_error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct retrieval_counts {
  uint64_t captures_selected = 0;  // captures the retrieval reads
  uint64_t captures_skipped = 0;   // catalogued without packet times
  uint64_t captures_pending = 0;   // marked for deletion: not started
  uint64_t packets_written = 0;
  uint64_t bytes_written = 0;      // file header included
  uint64_t packets_refused = 0;    // of a link type the output or the filter cannot take
};

enum class retrieval_end : uint8_t { running, complete, packet_limit, byte_limit };

const char* to_string(retrieval_end end);

class packet_retrieval {
 public:
  // Captures kept open from the start (see packet_merge::prepare).
  static constexpr size_t KEEP_OPEN = 32;

  // `captures` in ascending first-packet time. Raises filter_error.
  packet_retrieval(std::vector<merge_input> captures, const retrieval_request& request);
  ~packet_retrieval();
  packet_retrieval(const packet_retrieval&) = delete;
  packet_retrieval& operator=(const packet_retrieval&) = delete;

  const packet_output& output() const { return _output; }

  // Appends the next part of the file to `out` (the header first): returns
  // once `out` holds at least `chunk` bytes, once `slice` has passed, or at
  // the end. False once the file is complete: what this call appended is
  // its last part.
  bool produce(std::string& out, size_t chunk, std::chrono::milliseconds slice);

  retrieval_end end() const { return _end; }
  retrieval_counts& counts() { return _counts; }
  const retrieval_counts& counts() const { return _counts; }
  const merge_counts& merge() const { return _merge.counts(); }
  const std::vector<std::string>& problems() const { return _merge.problems(); }

 private:
  // Opens and probes the captures and compiles the filter for their link
  // types; the link types.
  std::vector<uint32_t> prepare();

  retrieval_request _request;
  packet_merge _merge;
  packet_filter _filter;
  packet_output _output;
  bool _header_written = false;
  uint64_t _refused = 0;  // packets the output could not carry
  retrieval_end _end = retrieval_end::running;
  retrieval_counts _counts;
};

// The captures of a catalogue that overlap the window (capture_overlap.hpp),
// those marked for deletion left out, ready to be retrieved. Raises
// filter_error.
std::unique_ptr<packet_retrieval> retrieve_from_catalogue(csl::fs_cache& cache, const retrieval_request& request);
// The same across several catalogues (one per capture root), merged.
std::unique_ptr<packet_retrieval> retrieve_from_catalogues(const std::vector<csl::fs_cache*>& caches,
                                                           const retrieval_request& request);

}  // namespace faitra_host
