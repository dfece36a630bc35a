// Benchmark helper for packets of a time window (bench/run.py, section
// "Packets for a time window"):
//
//   packets_bench hour DIR            one hour of captures: 360 of 10 s each
//   packets_bench filler DIR N        N one-packet captures before that hour
//   packets_bench get ADDR TARGET     one GET; prints status, time to first
//                                     body byte, total time and bytes
//   packets_bench digest FILE         packets in a capture and a hash of their bytes
//   packets_bench select DIR START_S  catalogues DIR, then times the overlap
//                                     selection of [START_S, START_S + 60 s]
//
// The hour starts at HOUR_START. Its captures hold 200 packets a second of
// Ethernet/IPv4/UDP, 60 to 800 bytes, whose destination port cycles over
// 5000-5009, so that `udp dst port 5003` keeps a tenth of them. Every
// capture is a nanosecond pcap with the four capture attributes. The filler
// captures come before the hour, one a second, as days of older captures
// would: a window in the hour is recent, one among them lies in the middle
// of the catalogue's time indexes.
#include <faitra/host/capture_overlap.hpp>
#include <faitra/host/capture_reader.hpp>
#include <faitra/host/capture_summary.hpp>
#include <faitra/host/catalogue.hpp>
#include <faitra/host/daemon_address.hpp>

#include <cdl/task_system.hpp>

#include <httplib.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <optional>
#include <vector>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

constexpr uint64_t S = 1000000000ULL;
constexpr uint64_t HOUR_START = 1700000000ULL * S;
constexpr unsigned FILES = 360;
constexpr uint64_t FILE_SPAN = 10 * S;
constexpr unsigned PACKETS_PER_FILE = 2000;  // 200 a second
constexpr uint64_t FILLER_SPAN = S / 2;

void put32(std::string& out, uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); }
void put16be(std::string& out, uint16_t v) {
  out += static_cast<char>(v >> 8);
  out += static_cast<char>(v & 0xff);
}

// One Ethernet/IPv4/UDP frame of `size` bytes (at least 42).
std::string frame(unsigned n, size_t size) {
  std::string f;
  f.append("\x02\x00\x00\x00\x00\x02\x02\x00\x00\x00\x00\x01\x08\x00", 14);
  f += '\x45';
  f += '\0';
  put16be(f, static_cast<uint16_t>(size - 14));
  put16be(f, static_cast<uint16_t>(n));
  put16be(f, 0x4000);
  f += '\x40';
  f += '\x11';
  put16be(f, 0);
  f.append("\x0a\x00\x00\x01\x0a\x00\x00\x02", 8);
  put16be(f, static_cast<uint16_t>(40000 + n % 1000));
  put16be(f, static_cast<uint16_t>(5000 + n % 10));
  put16be(f, static_cast<uint16_t>(size - 34));
  put16be(f, 0);
  f.append(size - f.size(), static_cast<char>('a' + n % 26));
  return f;
}

bool write_capture(const std::string& path, uint64_t first, uint64_t step, unsigned packets, unsigned seed) {
  std::string out;
  for (uint32_t v : {0xa1b23c4dU, 0x00040002U, 0U, 0U, 262144U, 1U}) put32(out, v);
  uint64_t last = first;
  for (unsigned k = 0; k < packets; ++k) {
    const unsigned n = seed * PACKETS_PER_FILE + k;
    last = first + k * step + (n * 7919ULL) % 1000;  // ns that are not round
    const std::string f = frame(n, 60 + (n * 37) % 741);
    put32(out, static_cast<uint32_t>(last / S));
    put32(out, static_cast<uint32_t>(last % S));
    put32(out, static_cast<uint32_t>(f.size()));
    put32(out, static_cast<uint32_t>(f.size()));
    out += f;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0 || ::write(fd, out.data(), out.size()) != static_cast<ssize_t>(out.size())) {
    std::perror(path.c_str());
    return false;
  }
  const std::string hash = faitra_host::xxh3_128_hex(out.data(), out.size());
  const std::string start = std::to_string(first), end = std::to_string(last), created = std::to_string(first / S);
  const bool ok = ::fsetxattr(fd, "user.pcap_hash", hash.data(), hash.size(), 0) == 0 &&
                  ::fsetxattr(fd, "user.pcap_start_ts", start.data(), start.size(), 0) == 0 &&
                  ::fsetxattr(fd, "user.pcap_end_ts", end.data(), end.size(), 0) == 0 &&
                  ::fsetxattr(fd, "user.pcap_creation_ts", created.data(), created.size(), 0) == 0;
  ::close(fd);
  if (!ok) std::perror("fsetxattr");
  return ok;
}

int hour(const std::string& dir) {
  for (unsigned i = 0; i < FILES; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "/hour-%03u.pcap", i);
    if (!write_capture(dir + name, HOUR_START + i * FILE_SPAN, FILE_SPAN / PACKETS_PER_FILE, PACKETS_PER_FILE, i)) {
      return 1;
    }
  }
  std::printf("{\"files\": %u, \"packets\": %u, \"start_ns\": %llu, \"file_span_ns\": %llu}\n", FILES,
              FILES * PACKETS_PER_FILE, static_cast<unsigned long long>(HOUR_START),
              static_cast<unsigned long long>(FILE_SPAN));
  return 0;
}

int filler(const std::string& dir, unsigned n) {
  for (unsigned i = 0; i < n; ++i) {
    const uint64_t first = HOUR_START - (i + 1) * S;
    char name[64];
    std::snprintf(name, sizeof name, "/filler-%06u.pcap", i);
    if (!write_capture(dir + name, first, FILLER_SPAN, 1, i)) return 1;
  }
  return 0;
}

int get(const std::string& listen, const std::string& target) {
  faitra_host::listen_address address;
  std::string error;
  if (!faitra_host::parse_listen_address(listen, address, error)) {
    std::fprintf(stderr, "packets_bench: %s\n", error.c_str());
    return 2;
  }
  httplib::Client client = address.unix_socket ? httplib::Client(address.host) : httplib::Client(address.host, address.port);
  if (address.unix_socket) client.set_address_family(AF_UNIX);
  client.set_read_timeout(std::chrono::seconds(600));
  using clock = std::chrono::steady_clock;
  const auto begin = clock::now();
  clock::time_point first{};
  uint64_t bytes = 0;
  const auto result = client.Get(target, [&](const char*, size_t size) {
    if (bytes == 0) first = clock::now();
    bytes += size;
    return true;
  });
  const auto end = clock::now();
  auto ms = [&](clock::time_point t) { return std::chrono::duration<double, std::milli>(t - begin).count(); };
  std::printf("{\"status\": %d, \"ttfb_ms\": %.3f, \"total_ms\": %.3f, \"bytes\": %llu}\n", result ? result->status : 0,
              bytes > 0 ? ms(first) : -1.0, ms(end), static_cast<unsigned long long>(bytes));
  return result && result->status == 200 ? 0 : 1;
}

int digest(const std::string& path) {
  faitra_host::capture_cursor cursor(path == "-" ? std::string("/dev/stdin") : path);
  faitra_host::packet_record p;
  std::string all;
  uint64_t packets = 0;
  while (cursor.next(p)) {
    ++packets;
    all.append(reinterpret_cast<const char*>(p.data), p.caplen);
  }
  std::printf("{\"packets\": %llu, \"digest\": \"%s\", \"status\": \"%s\"}\n", static_cast<unsigned long long>(packets),
              faitra_host::xxh3_128_hex(all.data(), all.size()).c_str(), faitra_host::to_string(cursor.status()));
  return 0;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

int select(const std::string& dir, uint64_t start_s) {
  // Declared first so that the catalogue outlives the groups.
  std::optional<faitra_host::catalogue> c;
  cdl::core core;
  cdl::worker_group workers(core, {1, "packets_bench"});
  cdl::task_listener_group listeners(workers);
  faitra_host::capture_filter filter({".pcap"}, {dir});
  c = faitra_host::build_catalogue(listeners, dir, {dir}, false, filter, nullptr);
  std::vector<double> wall, cpu;
  size_t selected = 0;
  for (int i = 0; i < 21; ++i) {
    timespec a{}, b{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &a);
    const auto begin = std::chrono::steady_clock::now();
    selected = faitra_host::select_overlapping(*c->cache, start_s * S, (start_s + 60) * S).captures.size();
    wall.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count());
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &b);
    cpu.push_back(static_cast<double>(b.tv_sec - a.tv_sec) * 1e3 + static_cast<double>(b.tv_nsec - a.tv_nsec) / 1e6);
  }
  std::printf("{\"catalogued\": %zu, \"selected\": %zu, \"wall_ms\": %.3f, \"cpu_ms\": %.3f}\n", c->cache->size(),
              selected, median(wall), median(cpu));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  if (command == "hour" && argc == 3) return hour(argv[2]);
  if (command == "filler" && argc == 4) return filler(argv[2], static_cast<unsigned>(std::stoul(argv[3])));
  if (command == "get" && argc == 4) return get(argv[2], argv[3]);
  if (command == "digest" && argc == 3) return digest(argv[2]);
  if (command == "select" && argc == 4) return select(argv[2], std::stoull(argv[3]));
  std::fprintf(stderr, "usage: packets_bench hour DIR | filler DIR N | get ADDR TARGET | digest FILE | select DIR START_S\n");
  return 2;
}
