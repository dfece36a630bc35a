#include <faitra/host/capture_reader.hpp>

#include "capture_format.hpp"
#include "capture_source.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

namespace faitra_host {

namespace {

using detail::PCAP_MICRO;
using detail::PCAP_NANO;
using detail::PCAP_MODIFIED;
using detail::PCAP_FILE_HEADER;
using detail::PCAPNG_SECTION;
using detail::PCAPNG_BYTE_ORDER;
using detail::PCAPNG_INTERFACE;
using detail::PCAPNG_OBSOLETE_PACKET;
using detail::PCAPNG_SIMPLE_PACKET;
using detail::PCAPNG_ENHANCED_PACKET;
using detail::OPTION_END;
using detail::OPTION_TSRESOL;
using detail::OPTION_TSOFFSET;
using detail::NS_PER_S;

constexpr size_t INITIAL_CAPACITY = detail::capture_source::READ_BLOCK + (size_t{64} << 10);

uint32_t bswap(uint32_t v) { return __builtin_bswap32(v); }

std::string hex4(const unsigned char* b) {
  char text[16];
  std::snprintf(text, sizeof text, "%02x %02x %02x %02x", b[0], b[1], b[2], b[3]);
  return text;
}

}  // namespace

const char* to_string(capture_status status) {
  switch (status) {
    case capture_status::reading:
      return "reading";
    case capture_status::end:
      return "end";
    case capture_status::truncated:
      return "truncated";
    case capture_status::malformed:
      return "malformed";
    case capture_status::not_a_capture:
      return "not a capture";
    case capture_status::read_failed:
      return "read failed";
  }
  return "unknown";
}

// How one interface's timestamps become ns since the epoch.
struct capture_cursor::interface_info {
  enum class scale : uint8_t { multiply, shift, divide };
  uint32_t link_type = 0;
  uint32_t snaplen = 0;
  scale kind = scale::multiply;
  uint64_t factor = 1000;  // multiply: ns per unit; divide: units per second
  unsigned shift = 0;      // shift: units are 2^-shift s
  int64_t offset_s = 0;    // if_tsoffset

  uint64_t to_ns(uint64_t units) const {
    using u128 = unsigned __int128;
    u128 ns = 0;
    switch (kind) {
      case scale::multiply:
        ns = static_cast<u128>(units) * factor;
        break;
      case scale::shift:
        ns = (static_cast<u128>(units) * NS_PER_S) >> shift;
        break;
      case scale::divide:
        ns = static_cast<u128>(units) * NS_PER_S / factor;
        break;
    }
    __int128 total = static_cast<__int128>(ns) + static_cast<__int128>(offset_s) * static_cast<__int128>(NS_PER_S);
    if (total < 0) return 0;
    if (total > static_cast<__int128>(std::numeric_limits<uint64_t>::max())) {
      return std::numeric_limits<uint64_t>::max();
    }
    return static_cast<uint64_t>(total);
  }
};

// The decoded bytes not yet walked are buffer[begin, end); `base` is the
// stream offset of buffer[0].
struct capture_cursor::state {
  std::unique_ptr<unsigned char[]> buffer{new unsigned char[INITIAL_CAPACITY]};
  size_t capacity = INITIAL_CAPACITY;
  size_t begin = 0;
  size_t end = 0;
  uint64_t base = 0;
  bool started = false;
  bool swap = false;
  uint64_t pcap_fraction_ns = 1000;  // ns per unit of the pcap record's second field
  size_t pcap_record_header = 16;
  uint32_t pcap_link_type = 0;
  std::vector<interface_info> interfaces;

  uint16_t u16(const unsigned char* p) const { return detail::read_u16(p, swap); }
  uint32_t u32(const unsigned char* p) const { return detail::read_u32(p, swap); }
  const unsigned char* at() const { return buffer.get() + begin; }
  size_t available() const { return end - begin; }
};

capture_cursor::capture_cursor(const std::string& path, raw_observer observer) : _state(std::make_unique<state>()) {
  _fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  _owned = true;
  if (_fd < 0) {
    _errno = errno;
    _status = capture_status::read_failed;
    _message = std::string("open: ") + std::strerror(_errno);
  }
  _source = std::make_unique<detail::capture_source>(_fd, std::move(observer));
}

capture_cursor::capture_cursor(int fd, bool owned, raw_observer observer)
    : _fd(fd), _owned(owned), _source(std::make_unique<detail::capture_source>(fd, std::move(observer))),
      _state(std::make_unique<state>()) {}

capture_cursor::~capture_cursor() {
  _source.reset();
  if (_owned && _fd >= 0) ::close(_fd);
}

bool capture_cursor::compressed() const { return _source->compressed(); }

uint64_t capture_cursor::raw_bytes() const { return _source->raw_bytes(); }

bool capture_cursor::drain() {
  if (_fd < 0) return false;
  if (!_source->drain()) {
    _errno = _source->error_number();
    return false;
  }
  return true;
}

uint64_t capture_cursor::offset() const { return _state->base + _state->begin; }

bool capture_cursor::stop(capture_status status, std::string message) {
  _status = status;
  _message = std::move(message);
  return false;
}

bool capture_cursor::fill(size_t need) {
  state& s = *_state;
  if (s.available() >= need) return true;
  if (need + detail::capture_source::READ_BLOCK > s.capacity) {
    const size_t capacity = need + detail::capture_source::READ_BLOCK;
    std::unique_ptr<unsigned char[]> grown(new unsigned char[capacity]);
    std::memcpy(grown.get(), s.at(), s.available());
    s.buffer = std::move(grown);
    s.capacity = capacity;
  } else if (s.begin > 0) {
    std::memmove(s.buffer.get(), s.at(), s.available());
  }
  s.base += s.begin;
  s.end -= s.begin;
  s.begin = 0;
  while (s.available() < need) {
    const size_t n = _source->read(s.buffer.get() + s.end, s.capacity - s.end);
    if (n == 0) return false;
    s.end += n;
  }
  return true;
}

// The stream ended where `header` more bytes were wanted.
bool capture_cursor::end_of_records(size_t header) {
  if (_source->failed()) {
    _errno = _source->error_number();
    return stop(capture_status::read_failed, _source->error());
  }
  if (_state->available() == 0) return stop(capture_status::end, {});
  return stop(capture_status::truncated, "the file ends inside the record at byte " + std::to_string(offset()) +
                                             " (" + std::to_string(_state->available()) + " of at least " +
                                             std::to_string(header) + " bytes)");
}

bool capture_cursor::start() {
  state& s = *_state;
  s.started = true;
  if (!fill(4)) {
    if (_source->failed()) return end_of_records(4);
    return stop(capture_status::not_a_capture, s.available() == 0 ? "empty file" : "shorter than any capture header");
  }
  uint32_t magic;
  std::memcpy(&magic, s.at(), 4);
  if (magic == PCAPNG_SECTION) {
    _format = capture_format::pcapng;
    return true;
  }
  s.swap = magic == bswap(PCAP_MICRO) || magic == bswap(PCAP_NANO) || magic == bswap(PCAP_MODIFIED);
  if (s.swap) magic = bswap(magic);
  if (magic != PCAP_MICRO && magic != PCAP_NANO && magic != PCAP_MODIFIED) {
    return stop(capture_status::not_a_capture, "neither pcap nor pcapng (first bytes " + hex4(s.at()) + ")");
  }
  _format = capture_format::pcap;
  if (!fill(PCAP_FILE_HEADER)) {
    if (_source->failed()) return end_of_records(PCAP_FILE_HEADER);
    return stop(capture_status::truncated, "the file ends inside the pcap file header");
  }
  const uint16_t major = s.u16(s.at() + 4);
  if (major != 2) {
    return stop(capture_status::malformed,
                "unsupported pcap version " + std::to_string(major) + "." + std::to_string(s.u16(s.at() + 6)));
  }
  s.pcap_fraction_ns = magic == PCAP_NANO ? 1 : 1000;
  s.pcap_record_header = magic == PCAP_MODIFIED ? 24 : 16;
  // The upper bits of the link-type field carry FCS information.
  s.pcap_link_type = s.u32(s.at() + 20) & 0xffff;
  s.begin += PCAP_FILE_HEADER;
  return true;
}

bool capture_cursor::next(packet_record& out) {
  if (_status != capture_status::reading) return false;
  if (!_state->started && !start()) return false;
  const bool got = _format == capture_format::pcap ? next_pcap(out) : next_pcapng(out);
  if (got) ++_packets;
  return got;
}

bool capture_cursor::next_pcap(packet_record& out) {
  state& s = *_state;
  const size_t header = s.pcap_record_header;
  if (!fill(header)) return end_of_records(header);
  const uint32_t seconds = s.u32(s.at());
  const uint32_t fraction = s.u32(s.at() + 4);
  const uint32_t caplen = s.u32(s.at() + 8);
  const uint32_t origlen = s.u32(s.at() + 12);
  if (caplen > MAX_RECORD) {
    return stop(capture_status::malformed, "the record at byte " + std::to_string(offset()) + " claims " +
                                               std::to_string(caplen) + " captured bytes");
  }
  if (!fill(header + caplen)) return end_of_records(header + caplen);
  out.ts_ns = uint64_t{seconds} * NS_PER_S + uint64_t{fraction} * s.pcap_fraction_ns;
  out.has_time = true;
  out.link_type = s.pcap_link_type;
  out.interface = 0;
  out.caplen = caplen;
  out.origlen = origlen;
  out.data = s.at() + header;
  s.begin += header + caplen;
  return true;
}

bool capture_cursor::next_pcapng(packet_record& out) {
  state& s = *_state;
  for (;;) {
    if (!fill(8)) return end_of_records(8);
    uint32_t type;
    std::memcpy(&type, s.at(), 4);
    if (type == PCAPNG_SECTION) {
      // The byte order of a section is known only from its own header.
      if (!fill(12)) return end_of_records(12);
      uint32_t order;
      std::memcpy(&order, s.at() + 8, 4);
      if (order != PCAPNG_BYTE_ORDER && order != bswap(PCAPNG_BYTE_ORDER)) {
        return stop(capture_status::malformed, "bad byte-order magic in the section at byte " + std::to_string(offset()));
      }
      s.swap = order != PCAPNG_BYTE_ORDER;
    } else {
      type = s.u32(s.at());
    }
    const uint32_t length = s.u32(s.at() + 4);
    if (length < 12 || length % 4 != 0 || length > MAX_RECORD) {
      return stop(capture_status::malformed,
                  "the block at byte " + std::to_string(offset()) + " has an impossible length " + std::to_string(length));
    }
    if (!fill(length)) return end_of_records(length);
    const unsigned char* block = s.at();
    if (s.u32(block + length - 4) != length) {
      return stop(capture_status::malformed,
                  "the block at byte " + std::to_string(offset()) + " ends with a different length");
    }
    const std::string where = std::to_string(offset());
    bool packet = false;
    uint32_t interface = 0;
    uint64_t units = 0;
    size_t data_at = 0;
    switch (type) {
      case PCAPNG_SECTION:
        if (!section_header(block, length)) return false;
        break;
      case PCAPNG_INTERFACE:
        if (!interface_description(block, length)) return false;
        break;
      case PCAPNG_ENHANCED_PACKET:
      case PCAPNG_OBSOLETE_PACKET:
        if (length < 32) return stop(capture_status::malformed, "short packet block at byte " + where);
        interface = type == PCAPNG_ENHANCED_PACKET ? s.u32(block + 8) : s.u16(block + 8);
        units = (uint64_t{s.u32(block + 12)} << 32) | s.u32(block + 16);
        out.caplen = s.u32(block + 20);
        out.origlen = s.u32(block + 24);
        data_at = 28;
        if (out.caplen > length - 32) {
          return stop(capture_status::malformed, "the packet at byte " + where + " overruns its block");
        }
        packet = true;
        break;
      case PCAPNG_SIMPLE_PACKET:
        if (length < 16) return stop(capture_status::malformed, "short packet block at byte " + where);
        out.origlen = s.u32(block + 8);
        out.caplen = std::min<uint32_t>(out.origlen, length - 16);
        if (!s.interfaces.empty() && s.interfaces[0].snaplen != 0) {
          out.caplen = std::min(out.caplen, s.interfaces[0].snaplen);
        }
        data_at = 12;
        packet = true;
        break;
      default:
        break;  // statistics, name resolution, custom, ...: not needed
    }
    if (packet) {
      if (interface >= s.interfaces.size()) {
        return stop(capture_status::malformed,
                    "the packet at byte " + where + " names undeclared interface " + std::to_string(interface));
      }
      const interface_info& info = s.interfaces[interface];
      out.has_time = type != PCAPNG_SIMPLE_PACKET;
      out.ts_ns = out.has_time ? info.to_ns(units) : 0;
      out.link_type = info.link_type;
      out.interface = interface;
      out.data = block + data_at;
    }
    s.begin += length;
    if (packet) return true;
  }
}

bool capture_cursor::section_header(const unsigned char* block, uint32_t length) {
  state& s = *_state;
  if (length < 28) return stop(capture_status::malformed, "short section header at byte " + std::to_string(offset()));
  const uint16_t major = s.u16(block + 12);
  if (major != 1) {
    return stop(capture_status::malformed, "unsupported pcapng version " + std::to_string(major) + "." +
                                               std::to_string(s.u16(block + 14)));
  }
  s.interfaces.clear();
  return true;
}

bool capture_cursor::interface_description(const unsigned char* block, uint32_t length) {
  state& s = *_state;
  const std::string where = std::to_string(offset());
  if (length < 20) return stop(capture_status::malformed, "short interface description at byte " + where);
  if (s.interfaces.size() >= MAX_INTERFACES) {
    return stop(capture_status::malformed, "more than " + std::to_string(MAX_INTERFACES) + " interfaces at byte " + where);
  }
  interface_info info;
  info.link_type = s.u16(block + 8);
  info.snaplen = s.u32(block + 12);
  uint8_t resolution = 6;
  const size_t limit = length - 4;
  for (size_t pos = 16; pos + 4 <= limit;) {
    const uint16_t code = s.u16(block + pos);
    const uint16_t size = s.u16(block + pos + 2);
    pos += 4;
    if (code == OPTION_END) break;
    if (size > limit - pos) return stop(capture_status::malformed, "an option overruns its block at byte " + where);
    if (code == OPTION_TSRESOL && size >= 1) resolution = block[pos];
    if (code == OPTION_TSOFFSET && size >= 8) {
      uint64_t raw;
      std::memcpy(&raw, block + pos, 8);
      if (s.swap) raw = __builtin_bswap64(raw);
      std::memcpy(&info.offset_s, &raw, 8);
    }
    pos += (size + 3U) & ~size_t{3};
  }
  if ((resolution & 0x80) != 0) {
    info.kind = interface_info::scale::shift;
    info.shift = resolution & 0x7f;
  } else if (resolution <= 9) {
    info.factor = 1;
    for (unsigned i = resolution; i < 9; ++i) info.factor *= 10;
  } else if (resolution <= 19) {
    info.kind = interface_info::scale::divide;
    info.factor = 1;
    for (unsigned i = 0; i < resolution; ++i) info.factor *= 10;
  } else {
    return stop(capture_status::malformed, "unsupported time resolution 10^-" + std::to_string(resolution) +
                                               " at byte " + where);
  }
  s.interfaces.push_back(info);
  return true;
}

}  // namespace faitra_host
