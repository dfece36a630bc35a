// The file a retrieval writes: packets laid out as one capture, appended to
// a caller's buffer.
//
// With one link type (or none) it is classic pcap with the nanosecond magic
// 0xa1b23c4d, in host byte order as tcpdump writes it, snapshot length
// 262144; a window without captures is such a file with no packets (link
// type Ethernet). With several link types it is pcapng: one section, one
// interface per link type (if_tsresol 9, so times stay in nanoseconds) and
// enhanced packet blocks. A pcapng output declares the link types it was
// given in its header and adds an interface block for any other type when
// its first packet comes; classic pcap cannot, and refuses such a packet.
//
// Thread-safety: one thread at a time.
#pragma once

#include <faitra/host/capture_reader.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace faitra_host {

class packet_output {
 public:
  static constexpr uint32_t SNAPLEN = 262144;

  // `link_types` without duplicates, in the order their interfaces take.
  explicit packet_output(std::vector<uint32_t> link_types);

  bool pcapng() const { return _pcapng; }
  const char* content_type() const;
  const char* file_suffix() const { return _pcapng ? ".pcapng" : ".pcap"; }

  // Appends the file header; once, before any packet.
  void header(std::string& out);
  // The bytes add() would append for `packet`, interface block included.
  uint64_t size_of(const packet_record& packet) const;
  // Appends `packet`; false (nothing appended) when classic pcap cannot
  // carry its link type.
  bool add(const packet_record& packet, std::string& out);

 private:
  int interface_of(uint32_t link_type) const;
  void interface_block(uint32_t link_type, std::string& out);

  bool _pcapng;
  std::vector<uint32_t> _interfaces;  // link type per interface id
};

}  // namespace faitra_host
