#include <faitra/host/packet_filter.hpp>

#include <pcap/pcap.h>

#include <mutex>

namespace faitra_host {

namespace {

constexpr int COMPILE_SNAPLEN = 262144;

std::mutex& compile_mutex() {
  static std::mutex m;
  return m;
}

// Capture files carry LINKTYPE_* values; pcap_open_dead wants the DLT_*
// value of this platform. They are equal except for a few old types.
int dlt_of(uint32_t link_type) {
  switch (link_type) {
    case 100: return DLT_ATM_RFC1483;
    case 101: return DLT_RAW;
    case 102: return DLT_SLIP_BSDOS;
    case 103: return DLT_PPP_BSDOS;
    default: return static_cast<int>(link_type);
  }
}

}  // namespace

struct packet_filter::program {
  uint32_t link_type = 0;
  bool usable = false;
  bpf_program code{};

  ~program() {
    if (usable) pcap_freecode(&code);
  }
};

packet_filter::packet_filter(std::string expression) : _expression(std::move(expression)) {}

packet_filter::~packet_filter() = default;

packet_filter::program* packet_filter::find(uint32_t link_type) {
  for (const auto& p : _programs) {
    if (p->link_type == link_type) return p.get();
  }
  return nullptr;
}

bool packet_filter::prepare(uint32_t link_type, std::string& error) {
  if (empty()) return true;
  if (program* known = find(link_type)) {
    if (!known->usable) error = "the filter cannot be compiled for link type " + std::to_string(link_type);
    return known->usable;
  }
  auto p = std::make_unique<program>();
  p->link_type = link_type;
  {
    std::lock_guard<std::mutex> lock(compile_mutex());
    pcap_t* dead = pcap_open_dead(dlt_of(link_type), COMPILE_SNAPLEN);
    if (dead == nullptr) {
      error = "libpcap cannot open a handle for link type " + std::to_string(link_type);
    } else if (pcap_compile(dead, &p->code, _expression.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0) {
      error = pcap_geterr(dead);
    } else {
      p->usable = true;
    }
    if (dead != nullptr) pcap_close(dead);
  }
  const bool usable = p->usable;
  _programs.push_back(std::move(p));
  return usable;
}

bool packet_filter::matches(const packet_record& packet) {
  if (empty()) return true;
  if (_last == nullptr || _last->link_type != packet.link_type) {
    _last = find(packet.link_type);
    if (_last == nullptr) {
      std::string ignored;
      prepare(packet.link_type, ignored);
      _last = find(packet.link_type);
    }
  }
  if (!_last->usable) {
    ++_errors;
    return false;
  }
  pcap_pkthdr header{};
  header.caplen = packet.caplen;
  header.len = packet.origlen;
  return pcap_offline_filter(&_last->code, &header, packet.data) != 0;
}

}  // namespace faitra_host
