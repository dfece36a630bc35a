// The cleaner's disk sampling and its start and continue decisions. This
// binary replaces statvfs (exact figures), sleep (instant, recorded) and
// syslog (recorded).
#undef _FORTIFY_SOURCE

#include <csl/fs_cleaner.hpp>

#include <cdl/exception.hpp>

#include "support/cleaner_fixture.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <sys/statvfs.h>

#include <atomic>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr unsigned long BLOCK = 4096;
std::atomic<unsigned long> used_blocks{0};
std::atomic<unsigned long> total_blocks{0};

// The order in which refresh, pause and statvfs happened.
std::mutex trace_mutex;
std::vector<std::string> trace;

void note(const std::string& event) {
  const std::lock_guard<std::mutex> lock(trace_mutex);
  trace.push_back(event);
}

std::vector<std::string> take_trace() {
  const std::lock_guard<std::mutex> lock(trace_mutex);
  std::vector<std::string> taken;
  taken.swap(trace);
  return taken;
}

}  // namespace

extern "C" int statvfs(const char* __restrict, struct statvfs* __restrict buf) noexcept {
  std::memset(buf, 0, sizeof *buf);
  const unsigned long total = total_blocks.load();
  buf->f_bsize = BLOCK;
  buf->f_frsize = BLOCK;
  buf->f_blocks = total;
  buf->f_bfree = total - used_blocks.load();
  note("statvfs");
  return 0;
}

extern "C" unsigned int sleep(unsigned int seconds) {
  faitra_test::sleep_calls().record(seconds);
  note("sleep " + std::to_string(seconds));
  return 0;
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  faitra_test::syslog_lines().record(priority, format, args);
  va_end(args);
}

namespace {

using faitra_test::cleaner_env;
using faitra_test::cleaner_options;
using faitra_test::sleep_calls;
using faitra_test::syslog_lines;

class CleanerThresholds : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(env.ready()) << env.reason();
    set_usage(0, 100);
    take_trace();
    sleep_calls().clear();
    syslog_lines().clear();
  }

  static void set_usage(unsigned long used, unsigned long total) {
    used_blocks = used;
    total_blocks = total;
  }

  // Catalogues `count` records directly (no files behind them).
  void catalogue(size_t count) {
    env.cache().clear();
    for (size_t i = 0; i < count; ++i) {
      auto e = std::make_shared<csl::fs_entry>(env.path("r" + std::to_string(i) + ".pcap"));
      e->key = "k" + std::to_string(i);
      e->creation_ts = 100 + i;
      e->start_ts = (100 + i) * 1000000000UL;
      e->file_size = BLOCK;
      ASSERT_TRUE(env.cache().insert(std::move(e)));
    }
  }

  csl::fs_cleaner& inert_cleaner(bool verbose = false) {
    return env.build_cleaner({.enabled = false, .trigger = 0.9f, .stop = 0.5f, .verbose = verbose});
  }

  cleaner_env env{0};
};

TEST(DiskUsagePercent, IsTheFractionOfOneComputedInSinglePrecision) {
  EXPECT_EQ(csl::fs_cleaner::disk_usage_percent(1, 4), 0.25f);
  // 2^24 + 1 and 2^24 + 3 are not floats: the operands are rounded to 2^24
  // and 2^24 + 4 before dividing, which a double division would not do.
  const unsigned long used = (1UL << 24) + 1;
  const unsigned long total = (1UL << 24) + 3;
  const float single = static_cast<float>(1UL << 24) / static_cast<float>((1UL << 24) + 4);
  const float via_double = static_cast<float>(static_cast<double>(used) / static_cast<double>(total));
  ASSERT_NE(single, via_double);
  EXPECT_EQ(csl::fs_cleaner::disk_usage_percent(used, total), single);
  EXPECT_TRUE(std::isnan(csl::fs_cleaner::disk_usage_percent(0, 0)));
}

TEST_F(CleanerThresholds, DecisionsAreAtOrAboveTheFractionAndNeedCapturesCatalogued) {
  const struct {
    const char* what;
    unsigned long used, total;
    size_t records;
    bool start;     // trigger 0.9
    bool go_on;     // stop 0.5
  } rows[] = {
      {"at the trigger", 9, 10, 1, true, true},
      {"just below the trigger", 8999999, 10000000, 1, false, true},
      {"at the stop", 2, 4, 1, false, true},
      {"just below the stop", 1999999, 4000000, 1, false, false},
      {"full disk, empty catalogue", 10, 10, 0, false, false},
      {"zero total (NaN fraction)", 0, 0, 3, false, false},
  };
  csl::fs_cleaner& cleaner = inert_cleaner();
  for (const auto& r : rows) {
    SCOPED_TRACE(r.what);
    set_usage(r.used, r.total);
    catalogue(r.records);
    cleaner.read_disk_usage(false);
    EXPECT_EQ(cleaner.disk_usage(), r.used * BLOCK);
    EXPECT_EQ(cleaner.disk_total(), r.total * BLOCK);
    EXPECT_EQ(cleaner.should_start_cleanup(), r.start);
    EXPECT_EQ(cleaner.should_continue_cleanup(r.used, r.total), r.go_on);
  }
  EXPECT_EQ(sleep_calls().count(), 0u) << "sampling without a refresh never pauses";
}

TEST_F(CleanerThresholds, VerboseDecisionsWriteOneDebugLineEach) {
  for (const bool verbose : {false, true}) {
    SCOPED_TRACE(verbose ? "verbose" : "quiet");
    syslog_lines().clear();
    csl::fs_cleaner& cleaner = inert_cleaner(verbose);
    set_usage(9, 10);
    catalogue(1);
    cleaner.read_disk_usage(false);
    EXPECT_TRUE(cleaner.should_start_cleanup());
    EXPECT_FALSE(cleaner.should_continue_cleanup(1, 4));
    const auto lines = syslog_lines().lines();
    ASSERT_EQ(lines.size(), verbose ? 2u : 0u);
    if (!verbose) continue;
    EXPECT_EQ(lines[0].priority, LOG_DEBUG);
    EXPECT_EQ(lines[0].text,
              "os - cleaner - should_start_cleanup(): disk_usage: 36864, disk_total: 40960, cleanup_in_progress: 0, "
              "cache_size: 1, percent: 0.90%, trigger: 0.90%: 1");
    EXPECT_EQ(lines[1].priority, LOG_DEBUG);
    EXPECT_EQ(lines[1].text,
              "os - cleaner - should_continue_cleanup(): est_disk_usage: 1, est_disk_total: 4, cache_size: 1, "
              "percent: 0.25%, stop: 0.50%: 0");
  }
}

TEST(BytesToMetric, PicksTheUnitByPowersOf1024) {
  const std::pair<unsigned long, const char*> rows[] = {
      {1023, "1023 B"}, {1024, "1.00 KB"}, {1048575, "1024.00 KB"}, {1048576, "1.00  MB"},
      {1073741823, "1024.00  MB"},  // rounds up to 2^30 as a float
      {1073741824, "1.00 GB"}, {5UL << 40, "5120.00 GB"},
  };
  for (const auto& [bytes, text] : rows) EXPECT_EQ(csl::bytes_to_metric(bytes), text) << bytes;
}

TEST_F(CleanerThresholds, RefreshFailuresAreLoggedAndTheSampleStillFollowsThePause) {
  struct row {
    const char* what;
    csl::fs_cleaner::reset_disk_cache_type reset;
    const char* error;  // expected message after "Failed to reset disk cache: "; null: no error
  };
  const row rows[] = {
      {"refresh succeeds", [] { note("reset"); return true; }, nullptr},
      {"refresh reports failure", [] { note("reset"); return false; }, ""},
      {"refresh throws",
       []() -> bool {
         note("reset");
         throw std::runtime_error("cache daemon unreachable");
       },
       "cache daemon unreachable"},
      {"no refresh function", csl::fs_cleaner::reset_disk_cache_type(), "bad_function_call"},
  };
  set_usage(30, 100);
  for (const row& r : rows) {
    SCOPED_TRACE(r.what);
    syslog_lines().clear();
    sleep_calls().clear();
    take_trace();
    csl::fs_cleaner& cleaner =
        env.build_cleaner({.enabled = false, .trigger = 0.9f, .stop = 0.5f, .reset_disk_cache = r.reset});
    cleaner.read_disk_usage(true);

    std::vector<std::string> expected_trace = {"sleep 15", "statvfs"};
    if (r.reset) expected_trace.insert(expected_trace.begin(), "reset");
    EXPECT_EQ(take_trace(), expected_trace);
    EXPECT_EQ(sleep_calls().calls(), std::vector<unsigned int>{15});
    EXPECT_EQ(cleaner.disk_usage(), 30 * BLOCK);
    EXPECT_EQ(cleaner.disk_total(), 100 * BLOCK);

    const auto errors = syslog_lines().matching("Failed to reset disk cache");
    if (r.error == nullptr) {
      EXPECT_TRUE(errors.empty());
      continue;
    }
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].priority, LOG_ERR);
    EXPECT_EQ(errors[0].text, std::string("os - cleaner - Failed to reset disk cache: ") + r.error + ". Response: ");
  }

  SCOPED_TRACE("without a refresh");
  sleep_calls().clear();
  env.cleaner().read_disk_usage(false);
  EXPECT_EQ(take_trace(), std::vector<std::string>{"statvfs"});
  EXPECT_EQ(sleep_calls().count(), 0u);
}

TEST_F(CleanerThresholds, RunningCleanupRefusesToStartAnother) {
  std::atomic<bool> entered{false};
  std::atomic<bool> released{false};
  env.metadata_hook = [&](unsigned long, unsigned long) {
    entered = true;
    faitra_test::wait_until([&] { return released.load(); });
    return cdl::nullable<std::string>();
  };
  set_usage(9, 10);
  catalogue(1);
  // Enabled: its first check runs at once, starts a run at 90 % and parks it
  // in the metadata step.
  csl::fs_cleaner& cleaner = env.build_cleaner({.enabled = true, .trigger = 0.9f, .stop = 0.5f, .verbose = true});
  ASSERT_TRUE(faitra_test::wait_until([&] { return entered.load(); }));

  EXPECT_TRUE(cleaner.cleanup_in_progress());
  EXPECT_FALSE(cleaner.should_start_cleanup());
  const auto refused = syslog_lines().matching("cleanup_in_progress: 1");
  ASSERT_FALSE(refused.empty());
  EXPECT_NE(refused.back().text.find("cache_size: 1, percent: 0.90%, trigger: 0.90%: 0"), std::string::npos)
      << refused.back().text;

  released = true;
  EXPECT_TRUE(syslog_lines().wait_for("Filesystem cleanup has finished."));
  EXPECT_TRUE(faitra_test::wait_until([&] { return !cleaner.cleanup_in_progress(); }));
}

}  // namespace
