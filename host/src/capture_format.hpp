// The numbers of the two capture formats that the probe, the reader and the
// packet output all speak: classic pcap's magics and pcapng's block types,
// byte-order magic and interface options; and the readers of a field in
// either byte order. One place, so that the three cannot disagree on a
// format.
//
// Thread-safety: constants and pure functions.
#pragma once

#include <cstdint>
#include <cstring>

namespace faitra_host::detail {

constexpr uint32_t PCAP_MICRO = 0xa1b2c3d4;
constexpr uint32_t PCAP_NANO = 0xa1b23c4d;
constexpr uint32_t PCAP_MODIFIED = 0xa1b2cd34;  // 24-byte record headers, microseconds
constexpr size_t PCAP_FILE_HEADER = 24;

constexpr uint32_t PCAPNG_SECTION = 0x0a0d0d0a;
constexpr uint32_t PCAPNG_BYTE_ORDER = 0x1a2b3c4d;
constexpr uint32_t PCAPNG_INTERFACE = 1;
constexpr uint32_t PCAPNG_OBSOLETE_PACKET = 2;
constexpr uint32_t PCAPNG_SIMPLE_PACKET = 3;
constexpr uint32_t PCAPNG_ENHANCED_PACKET = 6;
constexpr uint16_t OPTION_END = 0;
constexpr uint16_t OPTION_TSRESOL = 9;
constexpr uint16_t OPTION_TSOFFSET = 14;

constexpr uint64_t NS_PER_S = 1000000000ULL;

// A field at `p`, byte-swapped when the file's order is not the host's.
inline uint16_t read_u16(const unsigned char* p, bool swap) {
  uint16_t v;
  std::memcpy(&v, p, 2);
  return swap ? static_cast<uint16_t>((v >> 8) | (v << 8)) : v;
}

inline uint32_t read_u32(const unsigned char* p, bool swap) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return swap ? __builtin_bswap32(v) : v;
}

}  // namespace faitra_host::detail
