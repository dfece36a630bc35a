#include "support/captures.hpp"

#include "support/wait.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pcap/pcap.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>

extern char** environ;

namespace faitra_test {

std::string read_bytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_bytes(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << bytes;
}

std::string command_output(const std::string& command) {
  std::string out;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) return out;
  char buffer[4096];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) out.append(buffer, n);
  return ::pclose(pipe) == 0 ? out : std::string();
}

// ---------------------------------------------------------------------------
// tcpdump and traffic

tcpdump_process::tcpdump_process(const std::vector<std::string>& args, const std::string& log) {
  std::vector<std::string> argv_text{"tcpdump"};
  argv_text.insert(argv_text.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argv_text) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  const int rc = ::posix_spawnp(&_pid, "tcpdump", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) {
    _pid = -1;
    _error = std::string("cannot run tcpdump: ") + std::strerror(rc);
  }
}

tcpdump_process::~tcpdump_process() { stop(); }

bool tcpdump_process::running() {
  if (_pid <= 0) return false;
  int status = 0;
  if (::waitpid(_pid, &status, WNOHANG) == _pid) {
    _pid = -1;
    return false;
  }
  return true;
}

void tcpdump_process::stop() {
  if (_pid <= 0) return;
  ::kill(_pid, SIGTERM);
  int status = 0;
  ::waitpid(_pid, &status, 0);
  _pid = -1;
}

udp_sender::udp_sender(uint16_t port) : _fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), _port(port) {}

udp_sender::~udp_sender() {
  if (_fd >= 0) ::close(_fd);
}

void udp_sender::send() {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(_port);
  to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const unsigned n = _count++;
  const std::string payload(20 + (n * 37) % 1200, static_cast<char>('a' + n % 26));
  (void)::sendto(_fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
}

std::string capture_loopback(const std::string& path, unsigned packets, bool nanoseconds) {
  const uint16_t port = static_cast<uint16_t>(20000 + ::getpid() % 20000);
  std::vector<std::string> args{"-i", "lo", "-n", "-U", "-c", std::to_string(packets), "-w", path};
  if (nanoseconds) args.emplace_back("--time-stamp-precision=nano");
  args.emplace_back("udp and dst port " + std::to_string(port));
  tcpdump_process tcpdump(args, path + ".log");
  if (!tcpdump.error().empty()) return tcpdump.error();
  udp_sender sender(port);
  // Datagrams sent before tcpdump listens are simply not captured.
  const bool done = wait_until([&] {
    sender.send();
    return !tcpdump.running();
  });
  if (!done) return "tcpdump did not capture " + std::to_string(packets) + " packets: " + read_bytes(path + ".log");
  return read_bytes(path).size() > 24 ? "" : "tcpdump wrote nothing: " + read_bytes(path + ".log");
}

// ---------------------------------------------------------------------------
// Layouts

namespace {

uint32_t get32(const std::string& b, size_t at) {
  uint32_t v;
  std::memcpy(&v, b.data() + at, 4);
  return v;
}

struct pcap_packet {
  uint64_t ns;
  uint32_t origlen;
  std::string data;
};

std::vector<pcap_packet> parse_nano_pcap(const std::string& pcap, uint32_t& link_type) {
  if (pcap.size() < 24 || get32(pcap, 0) != 0xa1b23c4d) throw std::invalid_argument("not a nanosecond pcap");
  link_type = get32(pcap, 20) & 0xffff;
  std::vector<pcap_packet> out;
  for (size_t at = 24; at + 16 <= pcap.size();) {
    const uint32_t caplen = get32(pcap, at + 8);
    out.push_back({uint64_t{get32(pcap, at)} * 1000000000ULL + get32(pcap, at + 4), get32(pcap, at + 12),
                   pcap.substr(at + 16, caplen)});
    at += 16 + caplen;
  }
  return out;
}

class pcapng_writer {
 public:
  explicit pcapng_writer(bool big_endian) : _big(big_endian) {}

  void u16(std::string& to, uint16_t v) const { put(to, v, 2); }
  void u32(std::string& to, uint32_t v) const { put(to, v, 4); }
  void u64(std::string& to, uint64_t v) const { put(to, v, 8); }
  void option(std::string& to, uint16_t code, const std::string& value) const {
    u16(to, code);
    u16(to, static_cast<uint16_t>(value.size()));
    to += value;
    to.append((4 - value.size() % 4) % 4, '\0');
  }
  void block(uint32_t type, std::string body) {
    body.append((4 - body.size() % 4) % 4, '\0');
    const auto length = static_cast<uint32_t>(body.size() + 12);
    u32(out, type);
    u32(out, length);
    out += body;
    u32(out, length);
  }
  void section() {
    std::string body;
    u32(body, 0x1a2b3c4d);
    u16(body, 1);
    u16(body, 0);
    u64(body, ~uint64_t{0});
    block(0x0a0d0d0a, body);
  }
  void interface(uint32_t link_type, const std::string& options) {
    std::string body;
    u16(body, static_cast<uint16_t>(link_type));
    u16(body, 0);
    u32(body, 262144);
    body += options;
    block(1, body);
  }
  void packet(uint32_t type, uint32_t interface, uint64_t units, const pcap_packet& p) {
    std::string body;
    if (type == 2) {
      u16(body, static_cast<uint16_t>(interface));
      u16(body, 0);
    } else {
      u32(body, interface);
    }
    u32(body, static_cast<uint32_t>(units >> 32));
    u32(body, static_cast<uint32_t>(units));
    u32(body, static_cast<uint32_t>(p.data.size()));
    u32(body, p.origlen);
    block(type, body + p.data);
  }

  std::string out;

 private:
  void put(std::string& to, uint64_t v, int bytes) const {
    for (int i = 0; i < bytes; ++i) {
      const int shift = _big ? 8 * (bytes - 1 - i) : 8 * i;
      to += static_cast<char>((v >> shift) & 0xff);
    }
  }
  bool _big;
};

}  // namespace

std::string swap_pcap(const std::string& pcap) {
  std::string out = pcap;
  auto swap_at = [&](size_t at, size_t width) {
    for (size_t i = 0; i < width / 2; ++i) std::swap(out[at + i], out[at + width - 1 - i]);
  };
  swap_at(0, 4);
  swap_at(4, 2);
  swap_at(6, 2);
  for (size_t at : {8, 12, 16, 20}) swap_at(at, 4);
  for (size_t at = 24; at + 16 <= pcap.size();) {
    const uint32_t caplen = get32(pcap, at + 8);
    for (size_t field = 0; field < 16; field += 4) swap_at(at + field, 4);
    at += 16 + caplen;
  }
  return out;
}

std::string pcap_to_pcapng(const std::string& pcap, bool big_endian) {
  constexpr uint64_t OFFSET_S = 1000;
  uint32_t link_type = 0;
  const std::vector<pcap_packet> packets = parse_nano_pcap(pcap, link_type);
  pcapng_writer w(big_endian);
  w.section();
  std::string nano;
  w.option(nano, 9, std::string(1, '\x09'));
  w.option(nano, 0, "");
  w.interface(link_type, nano);
  w.block(0x00000bad, "unknown block body");
  std::string binary;
  w.option(binary, 9, std::string(1, static_cast<char>(0x80 | 30)));
  std::string offset;
  w.u64(offset, OFFSET_S);
  w.option(binary, 14, offset);
  w.interface(link_type, binary);
  const size_t half = packets.size() / 2;
  for (size_t i = 0; i < half; ++i) {
    const pcap_packet& p = packets[i];
    if (i == 3) {
      std::string body;
      w.u32(body, static_cast<uint32_t>(p.data.size()));
      w.block(3, body + p.data);
    } else if (i % 2 == 1) {
      const auto units = static_cast<uint64_t>((static_cast<unsigned __int128>(p.ns - OFFSET_S * 1000000000ULL) << 30) /
                                               1000000000ULL);
      w.packet(6, 1, units, p);
    } else {
      w.packet(i == 2 ? 2 : 6, 0, p.ns, p);
    }
  }
  w.section();
  w.interface(link_type, "");
  for (size_t i = half; i < packets.size(); ++i) w.packet(6, 0, packets[i].ns / 1000, packets[i]);
  return w.out;
}

std::vector<oracle_packet> libpcap_packets(const std::string& path, int& link_type, std::string& error) {
  std::vector<oracle_packet> out;
  char errbuf[PCAP_ERRBUF_SIZE] = {};
  pcap_t* p = pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_NANO, errbuf);
  if (p == nullptr) {
    error = errbuf;
    return out;
  }
  link_type = pcap_datalink(p);
  pcap_pkthdr* header = nullptr;
  const u_char* data = nullptr;
  int rc = 0;
  while ((rc = pcap_next_ex(p, &header, &data)) == 1) {
    out.push_back({static_cast<uint64_t>(header->ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(header->ts.tv_usec),
                   header->caplen, header->len, std::string(reinterpret_cast<const char*>(data), header->caplen)});
  }
  if (rc == -1) error = pcap_geterr(p);
  pcap_close(p);
  return out;
}

}  // namespace faitra_test
