// The tracker and its monitor when system calls fail. This binary defines
// stat, read and inotify_init itself: each forwards to the C library unless
// the test armed a fault for the path or descriptor concerned.
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>
#include <csl/fs_tracker.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

namespace {

template <typename F>
F next_symbol(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

// stat fails (ENOENT) for `stat_fault_path` while `stat_faults` > 0.
char stat_fault_path[4096];
std::atomic<int> stat_faults{0};

// The descriptor of the latest inotify instance, and what read does on it.
enum class read_fault { none, eio, zero_once };
std::atomic<int> inotify_fd{-1};
std::atomic<read_fault> read_mode{read_fault::none};
std::atomic<bool> inotify_init_fails{false};

void arm_stat_fault(const std::string& path, int count) {
  std::strncpy(stat_fault_path, path.c_str(), sizeof stat_fault_path - 1);
  stat_faults.store(count);
}

}  // namespace

extern "C" int stat(const char* __restrict path, struct stat* __restrict buf) noexcept {
  static const auto real = next_symbol<int (*)(const char*, struct stat*)>("stat");
  int left = stat_faults.load();
  while (left > 0 && std::strcmp(path, stat_fault_path) == 0) {
    if (stat_faults.compare_exchange_weak(left, left - 1)) {
      errno = ENOENT;
      return -1;
    }
  }
  return real(path, buf);
}

extern "C" ssize_t read(int fd, void* buf, size_t n) {
  static const auto real = next_symbol<ssize_t (*)(int, void*, size_t)>("read");
  if (fd >= 0 && fd == inotify_fd.load()) {
    read_fault expected = read_fault::zero_once;
    if (read_mode.compare_exchange_strong(expected, read_fault::none)) return 0;
    if (read_mode.load() == read_fault::eio) {
      errno = EIO;
      return -1;
    }
  }
  return real(fd, buf, n);
}

extern "C" int inotify_init() noexcept {
  static const auto real = next_symbol<int (*)()>("inotify_init");
  if (inotify_init_fails.load()) {
    errno = EMFILE;
    return -1;
  }
  const int fd = real();
  inotify_fd.store(fd);
  return fd;
}

namespace {

using faitra_test::captured_log;
using faitra_test::text_of;
using faitra_test::tracker_harness;
using faitra_test::write_and_close;
using faitra_test::write_capture;

class MonitorFaults : public ::testing::Test {
 protected:
  void TearDown() override {
    stat_faults.store(0);
    read_mode.store(read_fault::none);
    inotify_init_fails.store(false);
    inotify_fd.store(-1);
  }
  std::string in(const std::string& name) const { return dir.file(name); }

  faitra_test::temp_dir dir;
};

TEST_F(MonitorFaults, FailedStatOnAnEventLeavesTheCacheAlone) {
  // A created event for a new file, and an updated event for a scanned one.
  struct {
    const char* label;
    bool scanned_first;
  } const cases[] = {{"created", false}, {"updated", true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    faitra_test::temp_dir d;
    const std::string path = d.file("a.pcap");
    if (c.scanned_first) write_capture(path, 100, {"hash-old", 1, 2, 3});
    captured_log log;
    tracker_harness h;
    h.start(d.path(), true, log.log());

    arm_stat_fault(path, 1);
    write_and_close(path, 700);
    ASSERT_TRUE(log.wait_for("Failed to read the attributes of " + path + "."));
    EXPECT_EQ(stat_faults.load(), 0);

    // Every event before the sentinel has been handled once it is cached.
    write_and_close(d.file("sentinel.pcap"), 1);
    ASSERT_TRUE(h.wait_cached(d.file("sentinel.pcap")));
    if (c.scanned_first) {
      const auto e = h.find(path);
      ASSERT_TRUE(e.has_value());
      EXPECT_EQ(text_of(e->key), "hash-old");
      EXPECT_EQ(e->file_size, 100u);
    } else {
      EXPECT_FALSE(h.cache().path_exists(path));
    }
  }
}

TEST_F(MonitorFaults, ScanRetriesTheSameEntryUntilStatSucceeds) {
  write_and_close(in("a.pcap"), 10);
  write_and_close(in("b.pcap"), 20);
  captured_log log;
  csl::fs_reader reader(faitra_test::is_capture_name, 236, "user.pcap_hash", "user.pcap_start_ts",
                        "user.pcap_end_ts", "user.pcap_creation_ts", {}, log.log());
  csl::fs_cache cache;
  int missing = 0;

  arm_stat_fault(in("a.pcap"), 2);
  reader.collect_files(dir.path(), cache, [&](csl::fs_entry&) { ++missing; }, [](csl::fs_entry&) {});

  EXPECT_EQ(stat_faults.load(), 0);
  const std::string line = "Failed to read stats on " + in("a.pcap") + ".";
  const std::string text = log.text();
  const size_t first = text.find(line);
  ASSERT_NE(first, std::string::npos) << text;
  EXPECT_NE(text.find(line, first + 1), std::string::npos) << text;
  // The entry is not skipped: both files are catalogued, each reported once.
  EXPECT_EQ(cache.size(), 2u);
  csl::fs_entry a;
  ASSERT_TRUE(cache.by_path(a, in("a.pcap")));
  EXPECT_EQ(a.file_size, 10u);
  EXPECT_EQ(missing, 2);
}

TEST_F(MonitorFaults, EmptyReadIsLoggedAndMonitoringGoesOnAReadErrorEndsItKeepingTheCache) {
  captured_log log;
  tracker_harness h;
  h.start(dir.path(), true, log.log());
  ASSERT_GE(inotify_fd.load(), 0);
  read_mode.store(read_fault::zero_once);
  ASSERT_TRUE(log.wait_for("read from inotify returned 0"));
  write_and_close(in("after.pcap"), 5);
  EXPECT_TRUE(h.wait_cached(in("after.pcap")));

  read_mode.store(read_fault::eio);
  ASSERT_TRUE(log.wait_for("Monitoring failed: read error, errno: " + std::string(std::strerror(EIO))));
  h.tracker().stop_monitoring();  // joins the ended thread
  EXPECT_EQ(h.cache().size(), 1u);
}

TEST_F(MonitorFaults, FailedInotifyInitStillBuildsTheCache) {
  write_capture(in("a.pcap"), 100, {"hash-a", 1, 2, 3});
  inotify_init_fails.store(true);
  captured_log log;
  tracker_harness h;
  csl::fs_tracker& tracker = h.start(dir.path(), true, log.log());

  EXPECT_TRUE(log.contains("fs_tracker(): Failed to start monitoring: fd < 0, error: " +
                           std::string(std::strerror(EMFILE))));
  EXPECT_FALSE(tracker.monitoring());
  EXPECT_EQ(h.cache().size(), 1u);
}

}  // namespace
