// capture_source: the bytes of one capture file, decoded, in large blocks.
//
// It reads the file with read(2) and hands every raw block to an optional
// observer before anything else looks at it, so that a content hash sees
// exactly the file's bytes, once, in order. A file whose first four bytes
// are the LZ4 frame magic is decoded with the LZ4 frame API (several
// frames, skippable frames included); any other file is passed through
// unchanged and read straight into the caller's buffer (no extra copy).
//
// Contract: read() fills the caller's buffer with decoded bytes and returns
// how many; 0 means the end of the decoded stream (or an error: see
// failed()). After the end, drain() reads whatever raw bytes remain (for
// the observer) without decoding them.
//
// Thread-safety: one thread at a time; the descriptor is the caller's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace faitra_host::detail {

class capture_source {
 public:
  using observer = std::function<void(const unsigned char*, size_t)>;

  // Raw bytes are read in blocks of this size.
  static constexpr size_t READ_BLOCK = size_t{1} << 20;

  capture_source(int fd, observer on_raw);
  ~capture_source();
  capture_source(const capture_source&) = delete;
  capture_source& operator=(const capture_source&) = delete;

  // Up to `max` decoded bytes into `out`; 0 at the end or on failure.
  size_t read(unsigned char* out, size_t max);
  // Reads the rest of the raw file for the observer. False on a read error.
  bool drain();

  bool compressed() const { return _compressed; }
  bool failed() const { return !_error.empty(); }
  // "read: <errno text>" or "lz4: <decoder message>"; empty when fine.
  const std::string& error() const { return _error; }
  int error_number() const { return _errno; }
  uint64_t raw_bytes() const { return _raw_bytes; }

 private:
  struct lz4_state;

  // One read(2), retried on EINTR; the bytes go to the observer. Returns
  // the count, 0 at the end of the file, or -1 (error recorded).
  long raw_read(unsigned char* out, size_t max);
  size_t read_first(unsigned char* out, size_t max);
  size_t read_lz4(unsigned char* out, size_t max);

  int _fd;
  observer _on_raw;
  bool _started = false;
  bool _compressed = false;
  bool _raw_end = false;
  uint64_t _raw_bytes = 0;
  std::string _error;
  int _errno = 0;
  std::unique_ptr<lz4_state> _lz4;
};

}  // namespace faitra_host::detail
