// Derivation speed: summarising captures in page cache (one pass: packet
// times and XXH3-128) against a plain read(2) loop in 1 MiB blocks over the
// same bytes, single thread, alternating, in one run.
//
//   derive_bench DIR [TOTAL_MIB] [REPETITIONS]
//
// Writes TOTAL_MIB (default 2048) of nanosecond pcap captures of 128 MiB
// each into DIR (kept if already there), reads them once to fill the page
// cache, then times each pass REPETITIONS times (default 5). Prints one
// JSON object: seconds per pass (median, min, max), the ratio of medians
// and derivation's GB/s.
#include <faitra/host/capture_summary.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr size_t FILE_BYTES = size_t{128} << 20;

void write_capture(const std::string& path, unsigned seed) {
  std::mt19937 random(seed);
  std::string out;
  out.reserve(FILE_BYTES + 2048);
  const uint32_t header[6] = {0xa1b23c4d, 0x00040002, 0, 0, 65535, 1};
  out.append(reinterpret_cast<const char*>(header), sizeof header);
  uint64_t ns = 1700000000000000000ULL + uint64_t{seed} * 1000000000ULL;
  std::string payload(1514, 'p');
  while (out.size() < FILE_BYTES) {
    // Sizes as on a busy link: many small frames, many full ones.
    const uint32_t size = random() % 2 == 0 ? 60 + random() % 140 : 1400 + random() % 115;
    ns += 1000 + random() % 50000;
    const uint32_t record[4] = {static_cast<uint32_t>(ns / 1000000000ULL), static_cast<uint32_t>(ns % 1000000000ULL),
                                size, size};
    out.append(reinterpret_cast<const char*>(record), sizeof record);
    out.append(payload, 0, size);
  }
  FILE* f = std::fopen(path.c_str(), "wb");
  if (f == nullptr || std::fwrite(out.data(), 1, out.size(), f) != out.size() || std::fclose(f) != 0) {
    std::perror(path.c_str());
    std::exit(1);
  }
}

uint64_t plain_read(const std::string& path) {
  static std::vector<unsigned char> buffer(size_t{1} << 20);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) std::exit(1);
  uint64_t total = 0;
  ssize_t n = 0;
  while ((n = ::read(fd, buffer.data(), buffer.size())) > 0) total += static_cast<uint64_t>(n);
  ::close(fd);
  return total;
}

struct stats {
  double median, min, max;
};

stats summarise(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return {v[v.size() / 2], v.front(), v.back()};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DIR [TOTAL_MIB] [REPETITIONS]\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  const size_t total_mib = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 2048;
  const int repetitions = argc > 3 ? std::atoi(argv[3]) : 5;
  ::mkdir(dir.c_str(), 0755);
  std::vector<std::string> files;
  for (size_t i = 0; i < std::max<size_t>(1, total_mib / (FILE_BYTES >> 20)); ++i) {
    files.push_back(dir + "/capture-" + std::to_string(i) + ".pcap");
    struct stat status {};
    if (::stat(files.back().c_str(), &status) != 0 || static_cast<size_t>(status.st_size) < FILE_BYTES) {
      write_capture(files.back(), static_cast<unsigned>(i));
    }
  }
  uint64_t bytes = 0;
  for (const std::string& f : files) bytes += plain_read(f);  // into the page cache

  using clock = std::chrono::steady_clock;
  std::vector<double> read_s, derive_s;
  uint64_t packets = 0;
  for (int r = 0; r < repetitions; ++r) {
    auto begin = clock::now();
    for (const std::string& f : files) plain_read(f);
    read_s.push_back(std::chrono::duration<double>(clock::now() - begin).count());
    begin = clock::now();
    packets = 0;
    for (const std::string& f : files) {
      const faitra_host::capture_summary s = faitra_host::summarise_capture(f);
      if (!s.usable()) {
        std::fprintf(stderr, "%s: %s\n", f.c_str(), s.message.c_str());
        return 1;
      }
      packets += s.packets;
    }
    derive_s.push_back(std::chrono::duration<double>(clock::now() - begin).count());
  }
  const stats read = summarise(read_s);
  const stats derive = summarise(derive_s);
  std::printf(
      "{\"bytes\": %llu, \"files\": %zu, \"packets\": %llu, \"repetitions\": %d,\n"
      " \"read_s\": {\"median\": %.4f, \"min\": %.4f, \"max\": %.4f},\n"
      " \"derive_s\": {\"median\": %.4f, \"min\": %.4f, \"max\": %.4f},\n"
      " \"ratio\": %.3f, \"read_gbps\": %.2f, \"derive_gbps\": %.2f}\n",
      static_cast<unsigned long long>(bytes), files.size(), static_cast<unsigned long long>(packets), repetitions,
      read.median, read.min, read.max, derive.median, derive.min, derive.max, derive.median / read.median,
      static_cast<double>(bytes) / read.median / 1e9, static_cast<double>(bytes) / derive.median / 1e9);
  return 0;
}
