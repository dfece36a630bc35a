#include <faitra/host/packet_output.hpp>

#include "capture_format.hpp"

#include <cstring>

namespace faitra_host {

namespace {

using detail::NS_PER_S;
using detail::OPTION_TSRESOL;
using detail::PCAP_NANO;
using detail::PCAPNG_BYTE_ORDER;
using detail::PCAPNG_ENHANCED_PACKET;
using detail::PCAPNG_INTERFACE;
using detail::PCAPNG_SECTION;

constexpr uint32_t LINKTYPE_ETHERNET = 1;
constexpr size_t PCAP_RECORD_HEADER = 16;
constexpr size_t ENHANCED_PACKET_FIXED = 32;  // block header, fields and trailing length
constexpr size_t INTERFACE_BLOCK_SIZE = 32;   // with if_tsresol and the end of options

template <typename T>
void put(std::string& out, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, sizeof(T));
}

size_t padded(size_t n) { return (n + 3) & ~size_t{3}; }

}  // namespace

packet_output::packet_output(std::vector<uint32_t> link_types)
    : _pcapng(link_types.size() > 1), _interfaces(std::move(link_types)) {
  if (_interfaces.empty()) _interfaces.push_back(LINKTYPE_ETHERNET);
}

const char* packet_output::content_type() const {
  return _pcapng ? "application/x-pcapng" : "application/vnd.tcpdump.pcap";
}

int packet_output::interface_of(uint32_t link_type) const {
  for (size_t i = 0; i < _interfaces.size(); ++i) {
    if (_interfaces[i] == link_type) return static_cast<int>(i);
  }
  return -1;
}

void packet_output::interface_block(uint32_t link_type, std::string& out) {
  put<uint32_t>(out, PCAPNG_INTERFACE);
  put<uint32_t>(out, INTERFACE_BLOCK_SIZE);
  put<uint16_t>(out, static_cast<uint16_t>(link_type));
  put<uint16_t>(out, 0);
  put<uint32_t>(out, SNAPLEN);
  put<uint16_t>(out, OPTION_TSRESOL);
  put<uint16_t>(out, 1);
  out += '\x09';  // 10^-9 s
  out.append(3, '\0');
  put<uint32_t>(out, 0);  // end of options
  put<uint32_t>(out, INTERFACE_BLOCK_SIZE);
}

void packet_output::header(std::string& out) {
  if (!_pcapng) {
    put<uint32_t>(out, PCAP_NANO);
    put<uint16_t>(out, 2);
    put<uint16_t>(out, 4);
    put<int32_t>(out, 0);
    put<uint32_t>(out, 0);
    put<uint32_t>(out, SNAPLEN);
    put<uint32_t>(out, _interfaces.front());
    return;
  }
  put<uint32_t>(out, PCAPNG_SECTION);
  put<uint32_t>(out, 28);
  put<uint32_t>(out, PCAPNG_BYTE_ORDER);
  put<uint16_t>(out, 1);
  put<uint16_t>(out, 0);
  put<int64_t>(out, -1);  // section length not given: the file is streamed
  put<uint32_t>(out, 28);
  for (const uint32_t link_type : _interfaces) interface_block(link_type, out);
}

uint64_t packet_output::size_of(const packet_record& packet) const {
  if (!_pcapng) return PCAP_RECORD_HEADER + packet.caplen;
  const uint64_t block = ENHANCED_PACKET_FIXED + padded(packet.caplen);
  return interface_of(packet.link_type) < 0 ? block + INTERFACE_BLOCK_SIZE : block;
}

bool packet_output::add(const packet_record& packet, std::string& out) {
  if (!_pcapng) {
    if (packet.link_type != _interfaces.front()) return false;
    put<uint32_t>(out, static_cast<uint32_t>(packet.ts_ns / NS_PER_S));
    put<uint32_t>(out, static_cast<uint32_t>(packet.ts_ns % NS_PER_S));
    put<uint32_t>(out, packet.caplen);
    put<uint32_t>(out, packet.origlen);
    out.append(reinterpret_cast<const char*>(packet.data), packet.caplen);
    return true;
  }
  int interface = interface_of(packet.link_type);
  if (interface < 0) {
    interface_block(packet.link_type, out);
    _interfaces.push_back(packet.link_type);
    interface = static_cast<int>(_interfaces.size() - 1);
  }
  const auto length = static_cast<uint32_t>(ENHANCED_PACKET_FIXED + padded(packet.caplen));
  put<uint32_t>(out, PCAPNG_ENHANCED_PACKET);
  put<uint32_t>(out, length);
  put<uint32_t>(out, static_cast<uint32_t>(interface));
  put<uint32_t>(out, static_cast<uint32_t>(packet.ts_ns >> 32));
  put<uint32_t>(out, static_cast<uint32_t>(packet.ts_ns));
  put<uint32_t>(out, packet.caplen);
  put<uint32_t>(out, packet.origlen);
  out.append(reinterpret_cast<const char*>(packet.data), packet.caplen);
  out.append(padded(packet.caplen) - packet.caplen, '\0');
  put<uint32_t>(out, length);
  return true;
}

}  // namespace faitra_host
