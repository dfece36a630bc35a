// A BPF filter expression (tcpdump's syntax) applied to packets of any
// link type.
//
// libpcap compiles an expression for one link type at a time, so the
// filter keeps one compiled program per link type it meets: compiled with
// pcap_compile on a pcap_open_dead handle (snapshot length 262144,
// optimised, netmask unknown) and run with pcap_offline_filter.
//
// Contract: an empty expression matches every packet. prepare() compiles
// for a link type and gives libpcap's own message when it cannot. A packet
// of a link type not prepared is compiled for on first sight; when that
// fails, no packet of the type matches (errors() counts them).
//
// Thread-safety: one thread at a time per filter. Compilation is
// serialised across filters, because libpcap's compiler keeps process-wide
// state in some of its versions.
#pragma once

#include <faitra/host/capture_reader.hpp>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace faitra_host {

class packet_filter {
 public:
  explicit packet_filter(std::string expression);
  ~packet_filter();
  packet_filter(const packet_filter&) = delete;
  packet_filter& operator=(const packet_filter&) = delete;

  bool empty() const { return _expression.empty(); }
  const std::string& expression() const { return _expression; }

  // Compiles for `link_type` (a LINKTYPE_* value, as in capture files);
  // false with libpcap's message in `error`.
  bool prepare(uint32_t link_type, std::string& error);

  bool matches(const packet_record& packet);

  // Packets refused because the expression could not be compiled for their
  // link type.
  uint64_t errors() const { return _errors; }

 private:
  struct program;
  program* find(uint32_t link_type);

  std::string _expression;
  std::vector<std::unique_ptr<program>> _programs;
  program* _last = nullptr;  // most packets share the previous one's link type
  uint64_t _errors = 0;
};

}  // namespace faitra_host
