// Marking races: an age cleanup and a user's deletion by time mark captures
// while an automatic cleanup is in the middle of its selection. This binary
// replaces sleep (instant), syslog (recorded; it also parks the selection)
// and unlink (recorded, then forwarded to the C library).
#undef _FORTIFY_SOURCE

#include <csl/fs_cleaner.hpp>

#include "support/cleaner_fixture.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int CAPTURES = 240;
// The selection parks before its PARK_AT-th record, having marked the
// PARK_AT - 1 oldest.
constexpr int PARK_AT = 60;
constexpr unsigned long NS = 1000000000UL;

std::atomic<int> continue_checks{0};
std::atomic<bool> parked{false};
std::atomic<bool> resume{false};

}  // namespace

extern "C" unsigned int sleep(unsigned int seconds) {
  faitra_test::sleep_calls().record(seconds);
  return 0;
}

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  faitra_test::syslog_lines().record(priority, format, args);
  va_end(args);
  // The cleaner writes every line as "%s" with the whole text.
  const char* text = std::strcmp(format, "%s") == 0 ? va_arg(copy, const char*) : "";
  va_end(copy);
  if (std::strstr(text, "should_continue_cleanup()") != nullptr && ++continue_checks == PARK_AT) {
    parked = true;
    faitra_test::wait_until([] { return resume.load(); });
  }
}

extern "C" int unlink(const char* path) noexcept {
  faitra_test::removals().record(path);
  using unlink_fn = int (*)(const char*);
  static const auto real = reinterpret_cast<unlink_fn>(::dlsym(RTLD_NEXT, "unlink"));
  return real(path);
}

namespace {

using faitra_test::capture;
using faitra_test::cleaner_env;
using faitra_test::syslog_lines;
using marker = csl::fs_entry::deletion_by;

std::string name_of(int i) { return "race-" + std::to_string(1000 + i) + ".pcap"; }
unsigned long creation_of(int i) { return 1000UL + static_cast<unsigned long>(i); }

TEST(CleanerRace, ConcurrentMarkingDeletesEveryCaptureExactlyOnce) {
  cleaner_env env(0);
  ASSERT_TRUE(env.ready()) << env.reason();
  for (int i = 0; i < CAPTURES; ++i) {
    const unsigned long start = creation_of(i) * NS;
    faitra_test::write_capture(env.path(name_of(i)), capture{name_of(i), 1024, creation_of(i), start, start + 1});
  }
  ASSERT_TRUE(faitra_test::wait_until([&] {
    const auto r = env.record(name_of(CAPTURES - 1));  // the last one in: every earlier one is done
    return r && r->creation_ts == creation_of(CAPTURES - 1);
  }));
  auto watching = faitra_test::removals().watch(env.cache());

  // Trigger and stop at zero: the run wants every capture. Its first check
  // starts it at once; the storage's delete thread is not running yet.
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.0f, .stop = 0.0f, .verbose = true});
  ASSERT_TRUE(faitra_test::wait_until([] { return parked.load(); }));

  // While the selection holds its place, two host threads mark overlapping
  // ranges: the age cleanup by creation up to capture 150, the user by start
  // time over captures 100 to 200.
  std::atomic<bool> go{false};
  std::vector<csl::fs_entry> requested;
  std::thread age([&] {
    faitra_test::wait_until([&] { return go.load(); });
    cleaner.start_age_cleanup(csl::age_cleanup_state::both, creation_of(150));
  });
  std::thread user([&] {
    faitra_test::wait_until([&] { return go.load(); });
    env.storage().delete_by_time(requested, creation_of(100) * NS, creation_of(200) * NS, true, marker::requested);
  });
  go = true;
  age.join();
  user.join();
  resume = true;
  env.start_runtime();  // the storage now deletes alongside the cleaner

  ASSERT_TRUE(syslog_lines().wait_for("Filesystem cleanup has finished."));
  ASSERT_TRUE(faitra_test::wait_until([&] {
    for (int i = 0; i < CAPTURES; ++i) {
      if (env.on_disk(name_of(i))) return false;
    }
    return true;
  }));
  watching.reset();

  std::map<std::string, int> times_unlinked;
  std::map<std::string, marker> marker_at_unlink;
  for (const faitra_test::removal& call : faitra_test::removals().removals()) {
    ++times_unlinked[call.path];
    marker_at_unlink[call.path] = call.marked;
    EXPECT_TRUE(call.catalogued) << call.path;
    EXPECT_NE(call.marked, marker::none) << call.path;
  }
  EXPECT_EQ(times_unlinked.size(), static_cast<size_t>(CAPTURES));
  for (const auto& [path, times] : times_unlinked) EXPECT_EQ(times, 1) << path;

  // Whoever marked a capture deleted it: the user's captures carry the
  // user's marker; the selection skipped everything marked while it waited.
  std::set<std::string> requested_paths;
  for (const csl::fs_entry& e : requested) requested_paths.insert(e.path);
  for (int i = 151; i <= 200; ++i) EXPECT_EQ(requested_paths.count(env.path(name_of(i))), 1u) << name_of(i);
  for (const auto& [path, m] : marker_at_unlink) {
    EXPECT_EQ(m == marker::requested, requested_paths.count(path) == 1) << path;
  }
  // The age cleanup's metadata step ran while the selection waited; the
  // run's own covers every walked capture.
  const std::vector<cleaner_env::range> expected_metadata = {
      {0, creation_of(150) * NS}, {creation_of(0) * NS, creation_of(CAPTURES - 1) * NS}};
  EXPECT_EQ(env.metadata_calls(), expected_metadata);
  const int selected = (PARK_AT - 1) + (CAPTURES - 201);
  const auto summary = syslog_lines().matching("Filesystem cleanup has finished.");
  ASSERT_EQ(summary.size(), 1u);
  EXPECT_NE(summary[0].text.find(", Deleted: " + std::to_string(selected)), std::string::npos) << summary[0].text;
  EXPECT_EQ(syslog_lines().matching("Marking capture file to be deleted: ").size(),
            static_cast<size_t>(CAPTURES - selected));
}

}  // namespace
