// Cleanup runs end to end: captures written into a small tmpfs, watched by a
// real tracker, removed by the cleaner and the storage. This binary replaces
// sleep (instant, recorded), syslog (recorded) and unlink (forwarded, except
// for one path the test makes fail).
#undef _FORTIFY_SOURCE

#include <csl/fs_cleaner.hpp>

#include <cdl/exception.hpp>

#include "support/cleaner_fixture.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

namespace {

std::mutex failing_mutex;
std::string failing_path;  // unlink of this path fails with EIO

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
  faitra_test::sleep_calls().record(seconds);
  return 0;
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  faitra_test::syslog_lines().record(priority, format, args);
  va_end(args);
}

extern "C" int unlink(const char* path) noexcept {
  {
    const std::lock_guard<std::mutex> lock(failing_mutex);
    if (!failing_path.empty() && failing_path == path) {
      errno = EIO;
      return -1;
    }
  }
  using unlink_fn = int (*)(const char*);
  static const auto real = reinterpret_cast<unlink_fn>(::dlsym(RTLD_NEXT, "unlink"));
  return real(path);
}

namespace {

using faitra_test::capture;
using faitra_test::cleaner_env;
using faitra_test::cleaner_options;
using faitra_test::log_line;
using faitra_test::sleep_calls;
using faitra_test::syslog_lines;

// 1024 pages of 4 KiB; every capture takes 64 of them. With the trigger at
// one half the eighth capture starts a run at 512 pages; with the stop at
// 0.3 the run selects the four oldest (512 → 448 → 384 → 320 → 256 pages,
// and 256 / 1024 is the first estimate below 0.3).
constexpr unsigned long TMPFS_BYTES = 4UL << 20;
constexpr unsigned long CAPTURE_BYTES = 256UL << 10;
constexpr int CAPTURES_TO_TRIGGER = 8;
constexpr int SELECTED = 4;
constexpr unsigned long NS = 1000000000UL;

// Names run against creation order, so a walk by path would pick the newest.
std::string name_of(int i) { return "cap-" + std::to_string(90 - i) + ".pcap"; }
unsigned long creation_of(int i) { return 1000UL + static_cast<unsigned long>(i); }

// Start timestamps follow creation order except for the two oldest, which
// are swapped: the metadata range starts at the oldest selected capture's
// start, not at the smallest start.
unsigned long start_of(int i) {
  const int slot = i == 0 ? 1 : i == 1 ? 0 : i;
  return (2000UL + static_cast<unsigned long>(slot)) * NS;
}

capture capture_of(int i, bool with_start = true) {
  capture c{name_of(i), CAPTURE_BYTES, creation_of(i), std::nullopt, std::nullopt};
  if (with_start) {
    c.start_ts = start_of(i);
    c.end_ts = start_of(i) + NS / 2;
  }
  return c;
}

class CleanerRun : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!env.ready()) GTEST_SKIP() << env.reason();
    ASSERT_EQ(env.figures().used, 0u) << "the page arithmetic above needs an empty tmpfs";
    sleep_calls().clear();
    syslog_lines().clear();
  }
  void TearDown() override { set_failing_path(""); }
  static void set_failing_path(const std::string& path) {
    const std::lock_guard<std::mutex> lock(failing_mutex);
    failing_path = path;
  }
  // Writes captures first..last-1, each catalogued before the next.
  void add_captures(int first, int last, bool with_start = true) {
    for (int i = first; i < last; ++i) ASSERT_TRUE(env.add_capture(capture_of(i, with_start))) << name_of(i);
  }
  // Waits for the summary of a finished run and returns it.
  static std::string finished_summary() {
    if (!syslog_lines().wait_for("Filesystem cleanup has finished.")) return "";
    return syslog_lines().matching("Filesystem cleanup has finished.").front().text;
  }
  // Waits until the oldest `count` captures are gone from disk and catalogue;
  // checks that the next ones up to `kept` are still there.
  static bool oldest_gone(const cleaner_env& e, int count, int kept = 0) {
    const bool gone = faitra_test::wait_until([&] {
      for (int i = 0; i < count; ++i) {
        if (e.on_disk(name_of(i)) || e.record(name_of(i))) return false;
      }
      return true;
    });
    for (int i = count; i < kept; ++i) EXPECT_TRUE(e.on_disk(name_of(i)) && e.record(name_of(i))) << name_of(i);
    return gone;
  }

  cleaner_env env{TMPFS_BYTES};
};

TEST_F(CleanerRun, OldestCapturesGoUntilUsageFallsBelowTheStop) {
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  add_captures(0, CAPTURES_TO_TRIGGER);

  const std::string summary = finished_summary();
  ASSERT_FALSE(summary.empty());
  EXPECT_EQ(syslog_lines().matching("Filesystem cleanup has started.").at(0).text,
            "os - cleaner - Filesystem cleanup has started. Total: 4.00  MB, Free: 2.00  MB, Used: 50.00%, PCAPs: 8");
  EXPECT_NE(summary.find("Total: 4.00  MB, Free: 3.00  MB, Used: 25.00%, PCAPs: "), std::string::npos) << summary;
  EXPECT_TRUE(summary.ends_with(", Deleted: 4")) << summary;

  EXPECT_TRUE(oldest_gone(env, SELECTED, CAPTURES_TO_TRIGGER));
  const std::vector<cleaner_env::range> expected_metadata = {{start_of(0), start_of(SELECTED)}};
  EXPECT_EQ(env.metadata_calls(), expected_metadata);
  const auto after = env.figures();
  EXPECT_LT(static_cast<double>(after.used) / static_cast<double>(after.total), 0.3);
  EXPECT_TRUE(faitra_test::wait_until([&] { return !cleaner.cleanup_in_progress(); }));
  // The check at construction refreshes once, the run before selecting and
  // before its summary.
  EXPECT_EQ(sleep_calls().calls(), (std::vector<unsigned int>{15, 15, 15}));
  EXPECT_EQ(env.reset_calls(), 3u);
}

TEST_F(CleanerRun, FreshCleanerChecksOnceAndStaysQuietBelowTheTrigger) {
  add_captures(0, 2);
  const auto& dispatcher = (*env.tracker_channel().dispatchers())[env.tracker_channel().worker_id()];
  const auto created = cdl::task_type::identify<csl::fs_entry_created>();
  ASSERT_EQ(dispatcher.handler_count(created, csl::FS_EVENT_VERSION), 1u) << "the tracker's own handler";

  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f, .verbose = true});
  EXPECT_EQ(dispatcher.handler_count(created, csl::FS_EVENT_VERSION), 2u);
  ASSERT_TRUE(syslog_lines().wait_for("should_start_cleanup()"));
  EXPECT_TRUE(syslog_lines().matching("should_start_cleanup()").at(0).text.ends_with(
      "disk_usage: 524288, disk_total: 4194304, cleanup_in_progress: 0, cache_size: 2, percent: 0.12%, "
      "trigger: 0.50%: 0"));
  EXPECT_EQ(sleep_calls().calls(), std::vector<unsigned int>{15});
  EXPECT_EQ(env.reset_calls(), 1u);
  EXPECT_FALSE(cleaner.cleanup_in_progress());
  for (const log_line& line : syslog_lines().lines()) {
    EXPECT_GT(line.priority, LOG_INFO) << line.text;
  }
}

TEST_F(CleanerRun, DisabledCleanerNeverChecks) {
  csl::fs_cleaner& cleaner = env.build_cleaner({.enabled = false, .trigger = 0.01f, .stop = 0.005f});
  const auto& dispatcher = (*env.tracker_channel().dispatchers())[env.tracker_channel().worker_id()];
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_created>(), csl::FS_EVENT_VERSION), 1u);

  add_captures(0, 2);  // far above the trigger
  EXPECT_FALSE(cleaner.cleanup_in_progress());
  env.shutdown();  // joins every thread that could have run a check
  EXPECT_EQ(env.reset_calls(), 0u);
  EXPECT_EQ(sleep_calls().count(), 0u);
  EXPECT_TRUE(syslog_lines().matching("cleanup").empty());
}

TEST_F(CleanerRun, RecordsAlreadyMarkedByARequestCountButAreNotDeletedAgain) {
  // The storage's delete thread is not started, so requested deletions stay
  // queued and their files stay on disk.
  env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  add_captures(0, CAPTURES_TO_TRIGGER - 1);
  std::vector<csl::fs_entry> requested;
  ASSERT_TRUE(env.storage().delete_by_time(requested, 0, creation_of(SELECTED - 1), false,
                                           csl::fs_entry::deletion_by::requested));
  ASSERT_EQ(requested.size(), static_cast<size_t>(SELECTED));
  add_captures(CAPTURES_TO_TRIGGER - 1, CAPTURES_TO_TRIGGER);

  const std::string summary = finished_summary();
  ASSERT_FALSE(summary.empty());
  EXPECT_TRUE(summary.ends_with(", Deleted: 0")) << summary;
  EXPECT_NE(summary.find("Free: 2.00  MB, Used: 50.00%"), std::string::npos) << summary;
  // Every walked record with a start counts for the range, marked or not.
  const std::vector<cleaner_env::range> expected_metadata = {{start_of(0), start_of(SELECTED)}};
  EXPECT_EQ(env.metadata_calls(), expected_metadata);
  for (int i = 0; i < CAPTURES_TO_TRIGGER; ++i) {
    EXPECT_TRUE(env.on_disk(name_of(i))) << name_of(i);
    const auto r = env.record(name_of(i));
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->deletion.load(),
              i < SELECTED ? csl::fs_entry::deletion_by::requested : csl::fs_entry::deletion_by::none)
        << name_of(i);
  }
  EXPECT_TRUE(syslog_lines().matching("Deleting ").empty());
}

TEST_F(CleanerRun, CapturesWithoutStartAreRemovedWithoutWideningTheMetadataRange) {
  struct row {
    const char* what;
    int without_start;  // the oldest this many captures have no start timestamp
    std::vector<cleaner_env::range> expected;
  };
  const row rows[] = {
      {"oldest capture without start", 1, {{start_of(1), start_of(SELECTED)}}},
      {"no capture with start", CAPTURES_TO_TRIGGER, {}},
  };
  for (const row& r : rows) {
    SCOPED_TRACE(r.what);
    cleaner_env local(TMPFS_BYTES);
    ASSERT_TRUE(local.ready()) << local.reason();
    syslog_lines().clear();
    local.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
    for (int i = 0; i < CAPTURES_TO_TRIGGER; ++i) ASSERT_TRUE(local.add_capture(capture_of(i, i >= r.without_start)));

    const std::string summary = finished_summary();
    ASSERT_FALSE(summary.empty());
    EXPECT_TRUE(summary.ends_with(", Deleted: 4")) << summary;
    EXPECT_TRUE(oldest_gone(local, SELECTED));
    EXPECT_EQ(local.metadata_calls(), r.expected);
  }
}

TEST_F(CleanerRun, FailedRemovalEndsTheRunAndLeavesTheRestMarked) {
  set_failing_path(env.path(name_of(1)));
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  add_captures(0, CAPTURES_TO_TRIGGER);

  ASSERT_TRUE(syslog_lines().wait_for("Failed cleaning up captures: "));
  const auto failures = syslog_lines().matching("Failed cleaning up captures: ");
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].priority, LOG_CRIT);
  EXPECT_EQ(failures[0].text,
            "os - cleaner - Failed cleaning up captures: " + env.path(name_of(1)) + ": Input/output error");
  EXPECT_TRUE(faitra_test::wait_until([&] { return !cleaner.cleanup_in_progress(); }));
  // The metadata goes first: the failed removal comes after it.
  const std::vector<cleaner_env::range> expected_metadata = {{start_of(0), start_of(SELECTED)}};
  EXPECT_EQ(env.metadata_calls(), expected_metadata);

  EXPECT_TRUE(env.wait_gone(name_of(0)));
  for (int i = 1; i < SELECTED; ++i) {
    EXPECT_TRUE(env.on_disk(name_of(i))) << name_of(i);
    const auto r = env.record(name_of(i));
    ASSERT_TRUE(r.has_value()) << name_of(i);
    EXPECT_EQ(r->deletion.load(), csl::fs_entry::deletion_by::cleanup) << name_of(i);
  }
  EXPECT_FALSE(syslog_lines().contains("Filesystem cleanup has finished."));
}

// A metadata store that fails by throwing ends the run before any file is
// removed (its selection stays marked); one that returns an error text is
// only logged and the run goes on.
TEST_F(CleanerRun, MetadataCallbackThatThrowsEndsTheRunBeforeAnyRemoval) {
  env.metadata_hook = [](unsigned long, unsigned long) -> cdl::nullable<std::string> {
    throw std::runtime_error("metadata store unreachable");
  };
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  add_captures(0, CAPTURES_TO_TRIGGER);

  ASSERT_TRUE(syslog_lines().wait_for("Failed cleaning up captures: "));
  EXPECT_TRUE(syslog_lines().contains("os - cleaner - Failed cleaning up captures: metadata store unreachable"));
  EXPECT_TRUE(faitra_test::wait_until([&] { return !cleaner.cleanup_in_progress(); }));
  for (int i = 0; i < SELECTED; ++i) {
    EXPECT_TRUE(env.on_disk(name_of(i))) << name_of(i);
    EXPECT_EQ(env.record(name_of(i))->deletion.load(), csl::fs_entry::deletion_by::cleanup) << name_of(i);
  }

  cleaner_env failing(TMPFS_BYTES);
  ASSERT_TRUE(failing.ready());
  syslog_lines().clear();
  failing.metadata_hook = [](unsigned long, unsigned long) { return cdl::nullable<std::string>("store offline"); };
  failing.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  for (int i = 0; i < CAPTURES_TO_TRIGGER; ++i) ASSERT_TRUE(failing.add_capture(capture_of(i)));
  const std::string summary = finished_summary();
  EXPECT_TRUE(summary.ends_with(", Deleted: 4")) << summary;
  EXPECT_TRUE(syslog_lines().contains("os - cleaner - could not cleanup all or some metadata in range " +
                                      std::to_string(start_of(0)) + "-" + std::to_string(start_of(SELECTED)) +
                                      ": store offline"));
  EXPECT_TRUE(oldest_gone(failing, SELECTED));
}

TEST_F(CleanerRun, SwitchedOffMetadataStepStillRunsForAgeCleanup) {
  env.start_runtime();
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  cleaner.switch_metadata_cleanup(false);
  EXPECT_TRUE(syslog_lines().contains("os - cleaner - automatic capture metadata cleanup is now disabled"));
  add_captures(0, CAPTURES_TO_TRIGGER);

  const std::string summary = finished_summary();
  ASSERT_FALSE(summary.empty());
  EXPECT_TRUE(summary.ends_with(", Deleted: 4")) << summary;
  EXPECT_TRUE(oldest_gone(env, SELECTED, CAPTURES_TO_TRIGGER));
  EXPECT_TRUE(env.metadata_calls().empty());

  const unsigned long cutoff = creation_of(SELECTED + 1);
  cleaner.start_age_cleanup(csl::age_cleanup_state::both, cutoff);
  const std::vector<cleaner_env::range> expected = {{0, cutoff * NS}};
  EXPECT_EQ(env.metadata_calls(), expected);
  EXPECT_TRUE(oldest_gone(env, SELECTED + 2, CAPTURES_TO_TRIGGER));
}

TEST_F(CleanerRun, AgeCleanupComparesTheCutoffWithCreationSeconds) {
  struct row {
    csl::age_cleanup_state::cleanup_mode mode;
    unsigned long cutoff;
    const char* label;
    int deleted;  // the oldest this many captures go
    std::vector<cleaner_env::range> metadata;
  };
  const unsigned long cutoff = creation_of(2);
  const row rows[] = {
      {csl::age_cleanup_state::metadata, 0, "associated metadata only", 0, {{0, 0}}},
      {csl::age_cleanup_state::metadata, cutoff, "associated metadata only", 0, {{0, cutoff * NS}}},
      {csl::age_cleanup_state::files, cutoff, "capture files only", 3, {}},
      {csl::age_cleanup_state::both, cutoff, "both capture files and the associated metadata", 3,
       {{0, cutoff * NS}}},
  };
  constexpr int CAPTURES = 5;
  for (const row& r : rows) {
    SCOPED_TRACE(r.label + std::string(" up to ") + std::to_string(r.cutoff));
    cleaner_env local(TMPFS_BYTES);
    ASSERT_TRUE(local.ready()) << local.reason();
    syslog_lines().clear();
    local.start_runtime();
    csl::fs_cleaner& cleaner = local.build_cleaner({.enabled = false});
    for (int i = 0; i < CAPTURES; ++i) ASSERT_TRUE(local.add_capture(capture_of(i)));

    cleaner.start_age_cleanup(r.mode, r.cutoff);
    EXPECT_TRUE(syslog_lines().contains("os - cleaner - filesystem age cleanup has started; removing " +
                                        std::string(r.label) + " older than " + std::to_string(r.cutoff) + " sec"));
    EXPECT_EQ(local.metadata_calls(), r.metadata);
    EXPECT_TRUE(oldest_gone(local, r.deleted));
    for (int i = r.deleted; i < CAPTURES; ++i) {
      const auto survivor = local.record(name_of(i));
      ASSERT_TRUE(survivor.has_value()) << name_of(i);
      EXPECT_EQ(survivor->deletion.load(), csl::fs_entry::deletion_by::none) << name_of(i);
    }
  }
}

TEST_F(CleanerRun, AgeCleanupRefusesTheDisabledMode) {
  env.start_runtime();
  csl::fs_cleaner& cleaner = env.build_cleaner({.enabled = false});
  add_captures(0, 2);
  try {
    cleaner.start_age_cleanup(csl::age_cleanup_state::disabled, creation_of(1));
    FAIL() << "no assertion raised";
  } catch (const cdl::assertion_failure& e) {
    EXPECT_STREQ(e.what(), "mode must not be disabled when starting an age cleanup");
    EXPECT_EQ(e.file(), "fs_cleaner.cpp");
    EXPECT_EQ(e.line(), 250u);
  }
  EXPECT_TRUE(env.metadata_calls().empty());
  EXPECT_FALSE(syslog_lines().contains("age cleanup has started"));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(env.record(name_of(i))->deletion.load(), csl::fs_entry::deletion_by::none);
}

}  // namespace
