// The cleaner: how it samples and decides (statvfs faked), and whole runs on
// a small tmpfs (real statvfs) with captures written as the capture writer
// writes them: which captures go, the metadata range, metadata before any
// removal, and what ends a run. sleep is instant and syslog recorded.
#include <csl/fs_cleaner.hpp>

#include <cdl/exception.hpp>

#include "support/catalogue_env.hpp"
#include "support/interpose.hpp"

#include <gtest/gtest.h>

namespace {

using namespace faitra_test;
using range = catalogue_env::range;
using by = csl::fs_entry::deletion_by;
constexpr unsigned long NS = 1000000000UL;

TEST(CleanerDecisions, StartAtOrAboveTheTriggerGoOnAtOrAboveTheStopAndAFailedRefreshStillPauses) {
  clear_records();
  catalogue_env env({.log = recorded_log()});
  const struct {
    long used, total;
    size_t records;
    bool start, go_on;  // trigger 0.9, stop 0.5
  } rows[] = {{9, 10, 1, true, true},    {8999999, 10000000, 1, false, true}, {2, 4, 1, false, true},
              {1999999, 4000000, 1, false, false}, {10, 10, 0, false, false}, {0, 0, 3, false, false}};
  csl::fs_cleaner& cleaner = env.build_cleaner({.enabled = false, .trigger = 0.9f, .stop = 0.5f});
  EXPECT_EQ(env.created_handlers(), 1u) << "a disabled cleaner listens to nothing";
  for (const auto& r : rows) {
    SCOPED_TRACE(std::to_string(r.used) + " of " + std::to_string(r.total));
    fake_used = r.used;
    fake_total = r.total;
    env.cache().clear();
    for (size_t i = 0; i < r.records; ++i) {  // records without files
      env.cache().insert(std::make_shared<csl::fs_entry>(record(std::to_string(i), "k", 1, {}, {}, FAKE_BLOCK)));
    }
    cleaner.read_disk_usage(false);
    EXPECT_EQ(cleaner.disk_usage(), r.used * FAKE_BLOCK);
    EXPECT_EQ(cleaner.disk_total(), r.total * FAKE_BLOCK);
    EXPECT_EQ(cleaner.should_start_cleanup(), r.start);
    EXPECT_EQ(cleaner.should_continue_cleanup(r.used, r.total), r.go_on);
  }
  EXPECT_TRUE(sleeps().empty()) << "a disabled cleaner never checks; sampling without a refresh never pauses";

  // The refresh: then the pause, then the sample, whatever the refresh did.
  const std::pair<csl::fs_cleaner::reset_disk_cache_type, const char*> refreshes[] = {
      {[] { return note("reset"), true; }, nullptr},
      {[] { return note("reset"), false; }, ""},
      {[]() -> bool {
         note("reset");
         throw std::runtime_error("cache daemon unreachable");
       },
       "cache daemon unreachable"},
      {csl::fs_cleaner::reset_disk_cache_type(), "bad_function_call"}};
  for (const auto& [reset, error] : refreshes) {
    SCOPED_TRACE(error ? error : "succeeds");
    clear_records();
    env.build_cleaner({.enabled = false, .reset_disk_cache = reset}).read_disk_usage(true);
    std::vector<std::string> expected = {"sleep 15", "statvfs"};
    if (reset) expected.insert(expected.begin(), "reset");
    EXPECT_EQ(calls(), expected);
    const auto lines = syslog_lines("Failed to reset disk cache: ");
    EXPECT_EQ(lines.size(), error ? 1u : 0u);
    for (const auto& line : lines) EXPECT_TRUE(line.text.ends_with(std::string(": ") + error + ". Response: "));
  }
  fake_total = -1;
  for (const auto& [bytes, text] : {std::pair{1023UL, "1023 B"}, {1024UL, "1.00 KB"}, {1048576UL, "1.00  MB"},
                                    {1073741823UL, "1024.00  MB"}, {5UL << 40, "5120.00 GB"}}) {
    EXPECT_EQ(csl::bytes_to_metric(bytes), text) << "kept for existing log parsers";
  }
}

// 1024 pages of 4 KiB; every capture takes 64. With the trigger at one half
// the eighth capture starts a run at 512 pages; with the stop at 0.3 the run
// selects the four oldest (512 → 256 pages is the first estimate below 0.3).
constexpr unsigned long TMPFS_BYTES = 4UL << 20, CAPTURE_BYTES = 256UL << 10;
constexpr int CAPTURES = 8;
// Names run against creation order, so a walk by path would pick the newest;
// the starts of the two oldest are swapped, so the metadata range starts at
// the oldest selected capture's start, not at the smallest start.
std::string name_of(int i) { return "cap-" + std::to_string(90 - i) + ".pcap"; }
unsigned long creation_of(int i) { return 1000UL + static_cast<unsigned long>(i); }
unsigned long start_of(int i) { return (2000UL + static_cast<unsigned long>(i < 2 ? 1 - i : i)) * NS; }
capture_attributes capture_of(int i, bool with_start = true) {
  if (!with_start) return {"h", {}, {}, static_cast<long>(creation_of(i))};
  return {"h", start_of(i), start_of(i) + NS / 2, static_cast<long>(creation_of(i))};
}

struct run_case {
  const char* what;
  std::vector<range> metadata;
  const char* outcome;  // in the last line of the run
  const char* state;    // per capture, oldest first: x gone, c or r marked cleanup or requested, . unmarked
  unsigned pauses = 3;  // at the first check, before selecting, before the summary
  int without_start = 0;  // the oldest this many have no start timestamp
  bool requested_first = false, failing_removal = false, metadata_off = false;
  int metadata_result = 0;  // 1: returns an error text, 2: throws
};
void PrintTo(const run_case& c, std::ostream* os) { *os << c.what; }

class CleanerRun : public ::testing::TestWithParam<run_case> {};

TEST_P(CleanerRun, SelectsTheOldestCleansTheirMetadataFirstThenRemovesThem) {
  const run_case& c = GetParam();
  clear_records();
  catalogue_env env({.tmpfs_bytes = TMPFS_BYTES, .log = recorded_log()});
  if (!env.ready()) GTEST_SKIP() << env.reason();
  if (c.failing_removal) fault_of(call::unlink).arm(env.path(name_of(1)), 1, EIO);
  std::atomic<bool> early_removal{false}, second_run{false};
  std::atomic<csl::fs_cleaner*> running{nullptr};
  env.metadata_hook = [&](unsigned long, unsigned long) -> cdl::nullable<std::string> {
    for (int i = 0; i < 4; ++i) early_removal = early_removal || !exists(env.path(name_of(i)));
    second_run = running.load()->should_start_cleanup();  // refused while this one runs
    if (c.metadata_result == 2) throw std::runtime_error("metadata store unreachable");
    return c.metadata_result == 1 ? cdl::nullable<std::string>("store offline") : cdl::nullable<std::string>();
  };
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.5f, .stop = 0.3f});
  running = &cleaner;
  if (c.metadata_off) cleaner.switch_metadata_cleanup(false);
  for (int i = 0; i < CAPTURES; ++i) {
    // The storage's thread is not running: requested captures stay on disk.
    if (i == CAPTURES - 1 && c.requested_first) env.storage().delete_by_time(0, creation_of(3), false, by::requested);
    ASSERT_TRUE(env.add_capture(name_of(i), CAPTURE_BYTES, capture_of(i, i >= c.without_start))) << i;
  }
  ASSERT_TRUE(wait_for_syslog(c.outcome));
  ASSERT_TRUE(wait_until([&] { return !cleaner.cleanup_in_progress(); }));
  EXPECT_EQ(env.metadata_calls(), c.metadata);
  EXPECT_FALSE(early_removal || second_run);
  for (int i = 0; i < CAPTURES; ++i) {
    if (c.state[i] == 'x') {
      EXPECT_TRUE(env.wait_gone(name_of(i))) << i;
    } else {
      EXPECT_TRUE(exists(env.path(name_of(i)))) << i;
      EXPECT_EQ(env.marker(name_of(i)), c.state[i] == 'c' ? by::cleanup : c.state[i] == 'r' ? by::requested : by::none)
          << i;
    }
  }
  EXPECT_EQ(sleeps(), std::vector<unsigned>(c.pauses, 15u));
}

const range FIRST_FOUR{start_of(0), start_of(4)};
INSTANTIATE_TEST_SUITE_P(
    Cases, CleanerRun,
    ::testing::Values(
        run_case{"the_four_oldest_go", {FIRST_FOUR}, ", Deleted: 4", "xxxx...."},
        run_case{"an_oldest_without_start_is_out_of_the_range", {{start_of(1), start_of(4)}}, ", Deleted: 4",
                 "xxxx....", 3, 1},
        run_case{"no_start_at_all_no_metadata_step", {}, ", Deleted: 4", "xxxx....", 3, CAPTURES},
        run_case{"requested_captures_count_but_are_not_taken", {FIRST_FOUR}, ", Deleted: 0", "rrrr....", 3, 0, true},
        run_case{"a_failed_removal_ends_the_run_leaving_the_rest_marked", {FIRST_FOUR},
                 "Failed cleaning up captures: ", "xccc....", 2, 0, false, true},
        run_case{"a_throwing_metadata_store_ends_the_run_before_any_removal", {FIRST_FOUR},
                 "Failed cleaning up captures: metadata store unreachable", "cccc....", 2, 0, false, false, false, 2},
        run_case{"a_metadata_error_text_is_logged_and_the_run_goes_on", {FIRST_FOUR},
                 "could not cleanup all or some metadata in range 2001000000000-2004000000000: store offline",
                 "xxxx....", 3, 0, false, false, false, 1},
        run_case{"the_switch_turns_the_automatic_metadata_step_off", {}, ", Deleted: 4", "xxxx....", 3, 0, false,
                 false, true}),
    [](const auto& info) { return std::string(info.param.what); });

}  // namespace
