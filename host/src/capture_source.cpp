#include "capture_source.hpp"

#include <fcntl.h>
#include <lz4frame.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace faitra_host::detail {

namespace {

// A frame starts with 0x184D2204; skippable frames with 0x184D2A50..5F
// (both little-endian).
bool lz4_magic(const unsigned char* b) {
  if (b[1] == 0x22 && b[0] == 0x04 && b[2] == 0x4d && b[3] == 0x18) return true;
  return (b[0] & 0xf0) == 0x50 && b[1] == 0x2a && b[2] == 0x4d && b[3] == 0x18;
}

}  // namespace

struct capture_source::lz4_state {
  LZ4F_dctx* context = nullptr;
  std::vector<unsigned char> raw = std::vector<unsigned char>(READ_BLOCK);
  size_t position = 0;
  size_t length = 0;
  ~lz4_state() {
    if (context != nullptr) LZ4F_freeDecompressionContext(context);
  }
};

capture_source::capture_source(int fd, observer on_raw) : _fd(fd), _on_raw(std::move(on_raw)) {
  // Sequential read-ahead: the file is read once, front to back.
  (void)::posix_fadvise(_fd, 0, 0, POSIX_FADV_SEQUENTIAL);
}

capture_source::~capture_source() = default;

long capture_source::raw_read(unsigned char* out, size_t max) {
  for (;;) {
    const ssize_t n = ::read(_fd, out, max);
    if (n > 0) {
      _raw_bytes += static_cast<uint64_t>(n);
      if (_on_raw) _on_raw(out, static_cast<size_t>(n));
      return n;
    }
    if (n == 0) {
      _raw_end = true;
      return 0;
    }
    if (errno == EINTR) continue;
    _errno = errno;
    _error = std::string("read: ") + std::strerror(errno);
    return -1;
  }
}

size_t capture_source::read(unsigned char* out, size_t max) {
  if (failed() || max == 0) return 0;
  if (!_started) return read_first(out, max);
  if (_compressed) return read_lz4(out, max);
  if (_raw_end) return 0;
  const long n = raw_read(out, max);
  return n > 0 ? static_cast<size_t>(n) : 0;
}

size_t capture_source::read_first(unsigned char* out, size_t max) {
  _started = true;
  // The first four bytes decide the decoding; a short read is not the end.
  size_t got = 0;
  while (got < 4 && got < max && !_raw_end) {
    const long n = raw_read(out + got, max - got);
    if (n < 0) return 0;
    got += static_cast<size_t>(n);
  }
  if (got < 4 || max < 4 || !lz4_magic(out)) return got;

  _compressed = true;
  _lz4 = std::make_unique<lz4_state>();
  const size_t error = LZ4F_createDecompressionContext(&_lz4->context, LZ4F_VERSION);
  if (LZ4F_isError(error) != 0) {
    _error = std::string("lz4: ") + LZ4F_getErrorName(error);
    return 0;
  }
  if (got > _lz4->raw.size()) _lz4->raw.resize(got);
  std::memcpy(_lz4->raw.data(), out, got);
  _lz4->length = got;
  return read_lz4(out, max);
}

size_t capture_source::read_lz4(unsigned char* out, size_t max) {
  lz4_state& z = *_lz4;
  size_t produced = 0;
  while (produced < max && !failed()) {
    if (z.position == z.length) {
      if (_raw_end) break;
      const long n = raw_read(z.raw.data(), z.raw.size());
      if (n <= 0) break;
      z.position = 0;
      z.length = static_cast<size_t>(n);
    }
    size_t out_size = max - produced;
    size_t in_size = z.length - z.position;
    const size_t hint =
        LZ4F_decompress(z.context, out + produced, &out_size, z.raw.data() + z.position, &in_size, nullptr);
    if (LZ4F_isError(hint) != 0) {
      _error = std::string("lz4: ") + LZ4F_getErrorName(hint);
      break;
    }
    if (in_size == 0 && out_size == 0) {
      _error = "lz4: the decoder made no progress";
      break;
    }
    z.position += in_size;
    produced += out_size;
  }
  return produced;
}

bool capture_source::drain() {
  if (failed()) return false;
  _started = true;
  if (_raw_end) return true;
  std::vector<unsigned char> scratch;
  unsigned char* buffer = nullptr;
  if (_lz4) {
    buffer = _lz4->raw.data();
  } else {
    scratch.resize(READ_BLOCK);
    buffer = scratch.data();
  }
  while (!_raw_end) {
    if (raw_read(buffer, READ_BLOCK) < 0) return false;
  }
  return true;
}

}  // namespace faitra_host::detail
