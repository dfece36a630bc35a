// Real capture files for tests: tcpdump on loopback with traffic the test
// sends, the other layouts made from those bytes (byte-swapped pcap, pcapng
// with two sections and interfaces), and libpcap as the reading oracle.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace faitra_test {

std::string read_bytes(const std::string& path);
void write_bytes(const std::string& path, const std::string& bytes);

// tcpdump as a child process (stdout and stderr to `log`), killed with
// SIGTERM and reaped on destruction. error() is set when it cannot start.
class tcpdump_process {
 public:
  tcpdump_process(const std::vector<std::string>& args, const std::string& log);
  ~tcpdump_process();
  tcpdump_process(const tcpdump_process&) = delete;
  tcpdump_process& operator=(const tcpdump_process&) = delete;

  const std::string& error() const { return _error; }
  // Whether it still runs (reaps it when it ended).
  bool running();
  // SIGTERM (tcpdump flushes and closes its file), then waits.
  void stop();

 private:
  pid_t _pid = -1;
  std::string _error;
};

// Sends UDP datagrams of varying sizes from loopback to 127.0.0.1:port.
class udp_sender {
 public:
  explicit udp_sender(uint16_t port);
  ~udp_sender();
  void send();

 private:
  int _fd;
  uint16_t _port;
  unsigned _count = 0;
};

// Runs `tcpdump -i lo -c packets -w path` on a fresh port until it has
// captured `packets` datagrams of ours; "" on success, else why not.
std::string capture_loopback(const std::string& path, unsigned packets, bool nanoseconds);

// A classic pcap file (host byte order, as tcpdump writes it) rewritten in
// the other byte order.
std::string swap_pcap(const std::string& pcap);

// The packets of a nanosecond pcap file laid out as pcapng: a first section
// with two interfaces (if_tsresol 9, and 2^-30 with if_tsoffset 1000 s) and
// an unknown block, packets alternating between them, the third packet as
// an obsolete packet block and one simple packet block; then a second
// section with one interface at the default microsecond resolution.
std::string pcap_to_pcapng(const std::string& pcap, bool big_endian);

struct oracle_packet {
  uint64_t ts_ns = 0;
  uint32_t caplen = 0;
  uint32_t origlen = 0;
  std::string bytes;
};

// Every packet libpcap reads from `path` (nanosecond precision); `error`
// gets libpcap's message when the file does not end cleanly.
std::vector<oracle_packet> libpcap_packets(const std::string& path, int& link_type, std::string& error);

// Runs a command through /bin/sh; its standard output, or "" on failure.
std::string command_output(const std::string& command);

}  // namespace faitra_test
