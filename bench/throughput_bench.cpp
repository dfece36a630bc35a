// Event throughput: captures written at a steady rate into a watched
// directory (create, write, close, reopen, set the four attributes,
// close); afterwards the catalogue must equal the directory.
//
//   throughput_bench RATE SECONDS
//
// The writer keeps to an absolute schedule (it writes as fast as it can
// when behind, so the achieved rate is reported too). After the last
// capture it waits until the catalogue holds every capture with its
// attributes, or until nothing has changed for 3 s. Prints one JSON object.
#include "tracker_env.hpp"

#include <dirent.h>

#include <cstdio>
#include <thread>

namespace {

// Captures of the directory whose record is catalogued with the start
// timestamp the writer gave them.
uint64_t matching(csl::fs_cache& cache, const std::string& dir, uint64_t first_start) {
  uint64_t found = 0;
  DIR* d = ::opendir(dir.c_str());
  if (d == nullptr) return 0;
  csl::fs_entry record;
  while (dirent* e = ::readdir(d)) {
    const std::string name = e->d_name;
    if (!faitra_bench::is_capture_name(name)) continue;
    const uint64_t i = std::strtoull(name.c_str() + 4, nullptr, 10);  // "cap-<i>.pcap"
    if (cache.by_path(record, dir + "/" + name) && record.has_extended_attributes() && !record.start_ts.is_null() &&
        *record.start_ts == first_start + i) {
      ++found;
    }
  }
  ::closedir(d);
  return found;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: throughput_bench RATE SECONDS\n");
    return 2;
  }
  const double rate = std::atof(argv[1]);
  const double seconds = std::atof(argv[2]);
  const auto count = static_cast<uint64_t>(rate * seconds);
  faitra_bench::scratch_dir dir("faitra-rate");
  const uint64_t first_start = 1700000000000000000ULL;
  uint64_t written_ns = 0, drained_ns = 0, found = 0, catalogued = 0;
  {
    faitra_bench::tracker_env env(dir.path());
    const uint64_t begin = faitra_bench::now_ns();
    for (uint64_t i = 0; i < count; ++i) {
      const uint64_t due = begin + static_cast<uint64_t>(static_cast<double>(i) * 1e9 / rate);
      const uint64_t now = faitra_bench::now_ns();
      if (due > now) std::this_thread::sleep_for(std::chrono::nanoseconds(due - now));
      faitra_bench::write_capture(dir.path() + "/cap-" + std::to_string(i) + ".pcap", 512, first_start + i,
                                  faitra_bench::hash_of(i));
    }
    written_ns = faitra_bench::now_ns() - begin;
    // Drain: poll the catalogue until it is complete or stops changing.
    size_t last_size = 0;
    uint64_t last_change = faitra_bench::now_ns();
    for (;;) {
      catalogued = env.cache().size();
      if (catalogued != last_size) {
        last_size = catalogued;
        last_change = faitra_bench::now_ns();
      }
      if (catalogued >= count && (found = matching(env.cache(), dir.path(), first_start)) == count) break;
      if (faitra_bench::now_ns() - last_change > 3000000000ULL) {
        found = matching(env.cache(), dir.path(), first_start);
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    drained_ns = faitra_bench::now_ns() - begin - written_ns;
  }
  std::printf("{\"rate_tried\": %.0f, \"captures\": %lu, \"achieved_rate\": %.0f, \"catalogued\": %lu, "
              "\"matching\": %lu, \"lost\": %lu, \"drain_ms\": %.1f}\n",
              rate, static_cast<unsigned long>(count), static_cast<double>(count) * 1e9 / static_cast<double>(written_ns),
              static_cast<unsigned long>(catalogued), static_cast<unsigned long>(found),
              static_cast<unsigned long>(count - found), static_cast<double>(drained_ns) / 1e6);
  return 0;
}
