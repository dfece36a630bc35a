// Cleanup: one automatic cleanup run over 10,000 small captures on a tmpfs.
//
//   cleanup_bench pauses|no-pauses [COUNT]
//
// This binary replaces sleep(): with "no-pauses" it returns at once (the
// two 15 s pauses of a run vanish), with "pauses" it forwards to the C
// library. The tmpfs is sized so that the captures fill it past the
// trigger, and the stop fraction is low enough that the run selects every
// capture. It also forwards unlink() to stamp the first and last removal.
// Reported: the whole run (from the cleaner's construction, which queues
// the first check, until its cleanup-in-progress flag drops), the removal
// phase (first to last unlink) and files removed per second.
#include "bench_support.hpp"

#include <csl/fs_cache.hpp>
#include <csl/fs_cleaner.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/task_system.hpp>

#include <dlfcn.h>
#include <sys/mount.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

namespace {
std::atomic<bool> real_pauses{false};
std::atomic<uint64_t> unlinks{0};
std::atomic<uint64_t> first_unlink_ns{0};
std::atomic<uint64_t> last_unlink_ns{0};
}  // namespace

// Forwarded; stamps the first and the last removal.
extern "C" int unlink(const char* path) noexcept {
  using unlink_fn = int (*)(const char*);
  static const auto real = reinterpret_cast<unlink_fn>(::dlsym(RTLD_NEXT, "unlink"));
  const int result = real(path);
  const uint64_t now = faitra_bench::now_ns();
  uint64_t unset = 0;
  first_unlink_ns.compare_exchange_strong(unset, now);
  last_unlink_ns.store(now);
  unlinks.fetch_add(1);
  return result;
}

extern "C" unsigned int sleep(unsigned int seconds) {
  if (!real_pauses.load()) return 0;
  using sleep_fn = unsigned int (*)(unsigned int);
  static const auto real = reinterpret_cast<sleep_fn>(::dlsym(RTLD_NEXT, "sleep"));
  return real(seconds);
}

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: cleanup_bench pauses|no-pauses [COUNT]\n");
    return 2;
  }
  real_pauses = std::strcmp(argv[1], "pauses") == 0;
  const uint64_t count = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 10000;
  faitra_bench::scratch_dir mount_point("faitra-clean");
  const std::string dir = mount_point.path();
  // One page per capture plus room: the captures fill about 80 %.
  const std::string options = "size=" + std::to_string(count * 4096 * 5 / 4 + (1 << 20));
  if (::mount("tmpfs", dir.c_str(), "tmpfs", 0, options.c_str()) != 0) {
    std::fprintf(stderr, "cleanup_bench: cannot mount a tmpfs on %s: %s\n", dir.c_str(), std::strerror(errno));
    return 1;
  }
  for (uint64_t i = 0; i < count; ++i) {
    faitra_bench::write_capture(dir + "/cap-" + std::to_string(i) + ".pcap", 1024,
                                1700000000000000000ULL + i * 1000000000ULL, faitra_bench::hash_of(i));
  }
  uint64_t begin = 0, finished = 0, catalogue_empty = 0;
  {
    cdl::core core;
    cdl::runtime runtime;
    cdl::log log(cdl::log_type::os, cdl::log_facility::local0, "bench", cdl::log_priority::info, true);
    auto cache = std::make_shared<csl::fs_cache>();
    auto workers = std::make_unique<cdl::worker_group>(core, cdl::worker_group_config{1, "bench tracker"});
    auto listeners = std::make_unique<cdl::task_listener_group>(*workers);
    auto tracker = std::make_shared<csl::fs_tracker>(*listeners, cache, dir, std::set<std::string>{dir}, true,
                                                     faitra_bench::is_capture_name, 236, nullptr);
    auto storage = std::make_shared<csl::fs_storage>(runtime, cache, tracker, nullptr);
    const auto no_metadata = [](unsigned long, unsigned long) { return cdl::nullable<std::string>(); };
    begin = faitra_bench::now_ns();
    auto cleaner = std::make_unique<csl::fs_cleaner>(core, *listeners, storage, no_metadata, true, [] { return true; },
                                                     0.5f, 0.05f, false, std::getenv("BENCH_LOG") ? &log : nullptr);
    bool started = false;
    // Sampling every 200 us; the figures below are accurate to that.
    for (;;) {
      const uint64_t now = faitra_bench::now_ns();
      if (catalogue_empty == 0 && cache->size() == 0) catalogue_empty = now;
      if (cleaner->cleanup_in_progress()) started = true;
      if (started && !cleaner->cleanup_in_progress()) {
        finished = now;
        break;
      }
      if (now - begin > 120000000000ULL) break;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    while (catalogue_empty == 0 && faitra_bench::now_ns() - begin < 120000000000ULL) {
      if (cache->size() == 0) catalogue_empty = faitra_bench::now_ns();
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    tracker->stop_monitoring();
    listeners.reset();
    workers.reset();
    cleaner.reset();
    runtime.stop();
  }
  ::umount2(dir.c_str(), MNT_DETACH);
  const uint64_t first_gone = first_unlink_ns.load(), all_gone = last_unlink_ns.load();
  if (finished == 0 || unlinks.load() != count) {
    std::fprintf(stderr, "cleanup_bench: the run did not finish (%lu files removed)\n", static_cast<unsigned long>(unlinks.load()));
    return 1;
  }
  const double removal_s = static_cast<double>(all_gone - first_gone) / 1e9;
  std::printf("{\"pauses\": %s, \"captures\": %lu, \"run_s\": %.3f, \"removal_s\": %.3f, \"files_per_s\": %.0f, "
              "\"catalogue_empty_s\": %.3f}\n",
              real_pauses ? "true" : "false", static_cast<unsigned long>(count),
              static_cast<double>(finished - begin) / 1e9, removal_s, static_cast<double>(count) / removal_s,
              static_cast<double>(catalogue_empty - begin) / 1e9);
  return 0;
}
