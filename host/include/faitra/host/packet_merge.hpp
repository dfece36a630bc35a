// The packets of several capture files that lie in a closed time window,
// merged into time order without loading any capture into memory.
//
// A k-way merge: a min-heap holds, for each capture being read, its next
// packet in the window, keyed by (time, the capture's place in the input).
// Equal times therefore come out in input order, and within one capture in
// file order. Inputs are given in ascending first-packet time; a capture is
// opened (cursor and its 1 MiB buffer) only when the merge reaches its first
// packet time, and closed once it passes the window's end, so memory grows
// with the number of captures that overlap each other in time, not with the
// window. Captures are taken to be written in time order, as capture
// writers write them: the first packet after the window's end ends the
// capture. Packets without a time (pcapng simple packet blocks) are
// skipped.
//
// prepare() runs before the first packet: it opens every capture, learns
// the link types each declares (probe_link_types, or the first packet when
// the header does not tell) and keeps the descriptors of the first
// `keep_open` captures, so that one deleted while the retrieval runs is
// still read to its end. The others are opened again by path when reached;
// one that has gone by then is counted as vanished, as is one that could
// not be opened at all.
//
// Thread-safety: one thread at a time.
#pragma once

#include <faitra/host/capture_reader.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace faitra_host {

struct merge_input {
  std::string path;
  uint64_t start_ns = 0;  // time of its first packet, from the catalogue
};

struct merge_counts {
  uint64_t opened = 0;        // captures read (partly or wholly)
  uint64_t vanished = 0;      // could not be opened
  uint64_t damaged = 0;       // ended early: unreadable, malformed or not a capture
  uint64_t packets_read = 0;  // every packet read, in the window or not
  uint64_t without_time = 0;  // packets skipped for having no time
};

class packet_merge {
 public:
  // At most this many problems are kept for the log.
  static constexpr size_t MAX_PROBLEMS = 20;

  // `inputs` in ascending start_ns (ties in the order wanted for equal times).
  packet_merge(std::vector<merge_input> inputs, uint64_t start_ns, uint64_t end_ns);
  ~packet_merge();
  packet_merge(const packet_merge&) = delete;
  packet_merge& operator=(const packet_merge&) = delete;

  // Opens and probes every input; the link types found, without
  // duplicates, in input order.
  std::vector<uint32_t> prepare(size_t keep_open);

  // The next packet of the window; its bytes stay valid until the next
  // call. False at the end.
  bool next(packet_record& out);

  const merge_counts& counts() const { return _counts; }
  // "path: what went wrong", for the log.
  const std::vector<std::string>& problems() const { return _problems; }

 private:
  struct source;
  struct head {
    uint64_t ts_ns;
    size_t input;
  };

  void open_next();
  void advance(size_t input);
  void problem(const std::string& path, const std::string& what);
  void heap_push(head h);
  head heap_pop();

  std::vector<std::unique_ptr<source>> _sources;
  uint64_t _start;
  uint64_t _end;
  size_t _next_open = 0;
  std::vector<head> _heap;
  size_t _returned = SIZE_MAX;  // input whose packet the caller holds
  merge_counts _counts;
  std::vector<std::string> _problems;
};

}  // namespace faitra_host
