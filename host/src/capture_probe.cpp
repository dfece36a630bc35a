#include "capture_probe.hpp"

#include "capture_format.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace faitra_host::detail {

namespace {

constexpr size_t PROBE_BYTES = 16384;

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
  const uint32_t magic = read_u32(b, false);
  for (const bool swap : {false, true}) {
    const uint32_t m = swap ? __builtin_bswap32(magic) : magic;
    if (m == PCAP_MICRO || m == PCAP_NANO || m == PCAP_MODIFIED) {
      // The upper bits of the field carry FCS information.
      return std::vector<uint32_t>{read_u32(b + 20, swap) & 0xffff};
    }
  }
  if (magic != PCAPNG_SECTION) return std::nullopt;
  std::vector<uint32_t> types;
  bool swap = false;
  for (size_t at = 0; at + 12 <= size;) {
    if (read_u32(b + at, false) == PCAPNG_SECTION) {
      if (at + 12 > size) return std::nullopt;
      const uint32_t order = read_u32(b + at + 8, false);
      if (order != PCAPNG_BYTE_ORDER && order != __builtin_bswap32(PCAPNG_BYTE_ORDER)) return std::nullopt;
      swap = order != PCAPNG_BYTE_ORDER;
    }
    const uint32_t type = read_u32(b + at, swap);
    const uint32_t length = read_u32(b + at + 4, swap);
    if (length < 12 || length % 4 != 0) return std::nullopt;
    if (type == PCAPNG_OBSOLETE_PACKET || type == PCAPNG_SIMPLE_PACKET || type == PCAPNG_ENHANCED_PACKET) return types;
    if (type == PCAPNG_INTERFACE) {
      if (at + 10 > size) return std::nullopt;
      add(types, read_u16(b + at + 8, swap));
    }
    at += length;
  }
  return std::nullopt;  // no packet block within the bytes read
}

}  // namespace faitra_host::detail
