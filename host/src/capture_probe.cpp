#include "capture_probe.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace faitra_host::detail {

namespace {

constexpr size_t PROBE_BYTES = 16384;
constexpr uint32_t PCAP_MICRO = 0xa1b2c3d4;
constexpr uint32_t PCAP_NANO = 0xa1b23c4d;
constexpr uint32_t PCAP_MODIFIED = 0xa1b2cd34;
constexpr uint32_t SECTION_HEADER = 0x0a0d0d0a;
constexpr uint32_t BYTE_ORDER_MAGIC = 0x1a2b3c4d;
constexpr uint32_t INTERFACE_DESCRIPTION = 1;
constexpr uint32_t OBSOLETE_PACKET = 2;
constexpr uint32_t SIMPLE_PACKET = 3;
constexpr uint32_t ENHANCED_PACKET = 6;

uint32_t u32(const unsigned char* p, bool swap) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return swap ? __builtin_bswap32(v) : v;
}

uint16_t u16(const unsigned char* p, bool swap) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return swap ? static_cast<uint16_t>((v >> 8) | (v << 8)) : v;
}

void add(std::vector<uint32_t>& types, uint32_t link_type) {
  if (std::find(types.begin(), types.end(), link_type) == types.end()) types.push_back(link_type);
}

}  // namespace

std::optional<std::vector<uint32_t>> probe_link_types(int fd) {
  unsigned char b[PROBE_BYTES];
  ssize_t n = 0;
  do {
    n = ::pread(fd, b, sizeof b, 0);
  } while (n < 0 && errno == EINTR);
  if (n < 24) return std::nullopt;
  const auto size = static_cast<size_t>(n);
  const uint32_t magic = u32(b, false);
  for (const bool swap : {false, true}) {
    const uint32_t m = swap ? __builtin_bswap32(magic) : magic;
    if (m == PCAP_MICRO || m == PCAP_NANO || m == PCAP_MODIFIED) {
      // The upper bits of the field carry FCS information.
      return std::vector<uint32_t>{u32(b + 20, swap) & 0xffff};
    }
  }
  if (magic != SECTION_HEADER) return std::nullopt;
  std::vector<uint32_t> types;
  bool swap = false;
  for (size_t at = 0; at + 12 <= size;) {
    if (u32(b + at, false) == SECTION_HEADER) {
      if (at + 12 > size) return std::nullopt;
      const uint32_t order = u32(b + at + 8, false);
      if (order != BYTE_ORDER_MAGIC && order != __builtin_bswap32(BYTE_ORDER_MAGIC)) return std::nullopt;
      swap = order != BYTE_ORDER_MAGIC;
    }
    const uint32_t type = u32(b + at, swap);
    const uint32_t length = u32(b + at + 4, swap);
    if (length < 12 || length % 4 != 0) return std::nullopt;
    if (type == OBSOLETE_PACKET || type == SIMPLE_PACKET || type == ENHANCED_PACKET) return types;
    if (type == INTERFACE_DESCRIPTION) {
      if (at + 10 > size) return std::nullopt;
      add(types, u16(b + at + 8, swap));
    }
    at += length;
  }
  return std::nullopt;  // no packet block within the bytes read
}

}  // namespace faitra_host::detail
