// Small helpers shared by the benchmark programs: clocks, statistics,
// capture writing the way the capture writer writes, and a JSON line out.
#pragma once

#include <fcntl.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_bench {

inline uint64_t now_ns() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ULL + static_cast<uint64_t>(ts.tv_nsec);
}

// Resident set size in bytes, from /proc/self/statm.
inline uint64_t rss_bytes() {
  std::ifstream statm("/proc/self/statm");
  uint64_t pages = 0, resident = 0;
  statm >> pages >> resident;
  return resident * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

// Value at quantile q (0..1) of `values`, nearest rank; sorts a copy.
inline double quantile(std::vector<double> values, double q) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  size_t rank = static_cast<size_t>(q * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(rank, values.size() - 1)];
}

inline void check(bool ok, const std::string& what) {
  if (!ok) throw std::runtime_error(what);
}

// Create, write, close; reopen, set the four attributes, close: the two
// closes of the capture writer.
inline void write_capture(const std::string& path, size_t size, uint64_t start_ns, const std::string& hash) {
  static const std::string content(65536, 'p');
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  check(fd >= 0, "open " + path);
  check(::write(fd, content.data(), std::min(size, content.size())) >= 0, "write " + path);
  ::close(fd);
  fd = ::open(path.c_str(), O_WRONLY);
  check(fd >= 0, "reopen " + path);
  const std::string start = std::to_string(start_ns);
  const std::string end = std::to_string(start_ns + 999999999ULL);
  const std::string creation = std::to_string(start_ns / 1000000000ULL);
  check(::fsetxattr(fd, "user.pcap_hash", hash.data(), hash.size(), 0) == 0, "fsetxattr " + path);
  check(::fsetxattr(fd, "user.pcap_start_ts", start.data(), start.size(), 0) == 0, "fsetxattr " + path);
  check(::fsetxattr(fd, "user.pcap_end_ts", end.data(), end.size(), 0) == 0, "fsetxattr " + path);
  check(::fsetxattr(fd, "user.pcap_creation_ts", creation.data(), creation.size(), 0) == 0, "fsetxattr " + path);
  ::close(fd);
}

// A 64-character hexadecimal hash derived from `i`.
inline std::string hash_of(uint64_t i) {
  char text[65];
  std::snprintf(text, sizeof text, "%016lx%016lx%016lx%016lx", static_cast<unsigned long>(i * 2654435761ULL),
                static_cast<unsigned long>(i), static_cast<unsigned long>(~i),
                static_cast<unsigned long>(i * 40503ULL));
  return text;
}

inline bool is_capture_name(const std::string& name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, ".pcap") == 0;
}

// A fresh directory under $TMPDIR (or /tmp), removed with its files.
class scratch_dir {
 public:
  explicit scratch_dir(const std::string& prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/" + prefix + "-XXXXXX";
    check(::mkdtemp(pattern.data()) != nullptr, "mkdtemp " + pattern);
    _path = pattern;
  }
  ~scratch_dir() {
    const std::string command = "rm -rf '" + _path + "'";
    if (std::system(command.c_str()) != 0) std::fprintf(stderr, "could not remove %s\n", _path.c_str());
  }
  scratch_dir(const scratch_dir&) = delete;
  scratch_dir& operator=(const scratch_dir&) = delete;
  const std::string& path() const { return _path; }

 private:
  std::string _path;
};

}  // namespace faitra_bench
