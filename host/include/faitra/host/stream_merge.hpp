// Capture streams that arrive on descriptors (the answers of several
// sensors, say) merged into one capture in time order, as they arrive and
// without holding more than each stream's current packet.
//
// Each stream is read by a capture_cursor (classic pcap or pcapng, either
// byte order). The first packet of every stream is read before anything is
// written: the output (packet_output.hpp) is classic pcap with nanosecond
// times when those packets share a link type and pcapng otherwise. Then a
// min-heap keyed by (time, stream's place in the input) hands the packets
// out: equal times come out in input order, and within a stream in stream
// order. Packets without a time are skipped; a packet whose link type a
// classic pcap output cannot carry (a later interface of a pcapng stream)
// is counted as refused.
//
// The cursors own the descriptors: they are closed when the merge is
// destroyed, so whoever writes into them sees a broken pipe then.
//
// Thread-safety: one thread at a time.
#pragma once

#include <faitra/host/capture_reader.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace faitra_host {

class stream_merge {
 public:
  static constexpr size_t CHUNK = 256 * 1024;

  struct stream_result {
    uint64_t packets = 0;  // written to the output
    capture_status status = capture_status::reading;
    std::string message;  // why it ended short of `end`
  };

  // Takes ownership of `fds`.
  explicit stream_merge(const std::vector<int>& fds);
  ~stream_merge();
  stream_merge(const stream_merge&) = delete;
  stream_merge& operator=(const stream_merge&) = delete;

  // Merges until every stream has ended; `write` gets the output in pieces
  // of about CHUNK bytes, the file header first.
  void run(const std::function<void(const std::string&)>& write);

  const std::vector<stream_result>& results() const { return _results; }
  bool pcapng() const { return _pcapng; }
  uint64_t refused() const { return _refused; }

 private:
  struct input;
  bool advance(size_t i);

  std::vector<std::unique_ptr<input>> _inputs;
  std::vector<stream_result> _results;
  bool _pcapng = false;
  uint64_t _refused = 0;
};

}  // namespace faitra_host
