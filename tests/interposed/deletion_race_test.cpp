// Every way of deleting captures at once, on 10,000 captures in a tmpfs:
// four host threads deleting by path, by start time, by creation time and
// clearing everything, while the cleaner runs an automatic cleanup and an
// age cleanup. Each capture must be unlinked exactly once, only while it is
// catalogued and marked, and nothing that is not a capture may go.
//
// This binary replaces sleep (instant, so the cleaner's pauses cost
// nothing), syslog (recorded) and unlink and remove (recorded, then
// forwarded to the C library). Each round is its own test, so its own
// process and its own tmpfs.
#undef _FORTIFY_SOURCE

#include <csl/fs_cleaner.hpp>

#include "support/cleaner_fixture.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr int CAPTURES = 10000;
constexpr int OTHER_FILES = 50;  // in the directory, not captures
constexpr int ROUNDS = 20;
constexpr unsigned long NS = 1000000000UL;

using marker = csl::fs_entry::deletion_by;

template <typename F>
F next_symbol(const char* name) {
  return reinterpret_cast<F>(::dlsym(RTLD_NEXT, name));
}

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
  faitra_test::removals().record(path);
  static const auto real = next_symbol<int (*)(const char*)>("unlink");
  return real(path);
}

extern "C" int remove(const char* path) noexcept {
  faitra_test::removals().record(path);
  static const auto real = next_symbol<int (*)(const char*)>("remove");
  return real(path);
}

namespace {

using faitra_test::capture;
using faitra_test::cleaner_env;

std::string capture_name(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "race-%05d.pcap", i);
  return name;
}
// Creation and start times both follow the index, so every index and every
// selection sees the same order.
unsigned long creation_of(int i) { return 1000000UL + static_cast<unsigned long>(i); }
unsigned long start_of(int i) { return creation_of(i) * NS; }

void fill(const std::string& dir) {
  for (int i = 0; i < CAPTURES; ++i) {
    faitra_test::write_capture(dir + "/" + capture_name(i),
                               capture{capture_name(i), 300, creation_of(i), start_of(i), start_of(i) + 1});
  }
  for (int i = 0; i < OTHER_FILES; ++i) faitra_test::write_and_close(dir + "/notes-" + std::to_string(i) + ".txt", 300);
}

std::set<std::string> directory_listing(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) names.insert(entry.path().filename());
  return names;
}

class DeletionRace : public ::testing::TestWithParam<int> {};

TEST_P(DeletionRace, EveryCaptureIsUnlinkedExactlyOnceWhileMarked) {
  cleaner_env env(96UL << 20, fill);
  ASSERT_TRUE(env.ready()) << "needs a tmpfs: " << env.reason();
  ASSERT_EQ(env.cache().size(), static_cast<size_t>(CAPTURES));
  auto watching = faitra_test::removals().watch(env.cache());

  // The captures fill about 40 % of the tmpfs: a trigger of 10 % starts the
  // automatic cleanup at once and a stop of 5 % makes it want nearly all.
  env.start_runtime();
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.1f, .stop = 0.05f});

  std::mt19937 random(static_cast<unsigned>(GetParam()));
  std::vector<int> order(CAPTURES);
  for (int i = 0; i < CAPTURES; ++i) order[static_cast<size_t>(i)] = i;
  std::shuffle(order.begin(), order.end(), random);

  std::atomic<int> ready{0};
  std::atomic<int> path_requests{0};
  auto start_together = [&] {
    ++ready;
    faitra_test::wait_until([&] { return ready.load() == 5; });
  };
  std::vector<std::thread> threads;
  threads.emplace_back([&] {  // a user deleting single captures, in random order
    start_together();
    for (int i : order) {
      env.storage().delete_by_path(env.path(capture_name(i)), marker::requested);
      ++path_requests;
    }
  });
  threads.emplace_back([&] {  // a user deleting ranges by start time, newest first
    start_together();
    for (int first = CAPTURES - 100; first >= 0; first -= 100) {
      env.storage().delete_by_time(start_of(first), start_of(first + 99), true, marker::requested);
    }
  });
  threads.emplace_back([&] {  // a user deleting ranges by creation time, from the middle out
    start_together();
    for (int step = 0; step < CAPTURES / 2; step += 250) {
      env.storage().delete_by_time(creation_of(CAPTURES / 2 + step), creation_of(CAPTURES / 2 + step + 249), false,
                                   marker::requested);
      env.storage().delete_by_time(creation_of(CAPTURES / 2 - step - 250), creation_of(CAPTURES / 2 - step - 1),
                                   false, marker::requested);
    }
  });
  threads.emplace_back([&] {  // clearing everything, once others are under way
    start_together();
    faitra_test::wait_until([&] { return path_requests.load() >= CAPTURES / 10; });
    env.storage().clear(marker::requested);
  });
  threads.emplace_back([&] {  // an operator's age cleanup of the older half
    start_together();
    cleaner.start_age_cleanup(csl::age_cleanup_state::files, creation_of(CAPTURES / 2));
  });
  for (std::thread& t : threads) t.join();

  const bool all_gone = faitra_test::wait_until(
      [&] {
        return env.cache().size() == 0 && directory_listing(env.dir()).size() == static_cast<size_t>(OTHER_FILES) &&
               !cleaner.cleanup_in_progress() && env.storage().queued() == 0;
      },
      std::chrono::seconds(120));
  watching.reset();
  ASSERT_TRUE(all_gone) << env.cache().size() << " records and " << directory_listing(env.dir()).size()
                        << " files left";

  std::map<std::string, int> times_removed;
  for (const faitra_test::removal& r : faitra_test::removals().removals()) {
    ++times_removed[r.path];
    EXPECT_TRUE(r.catalogued) << r.path << " removed after it left the catalogue";
    EXPECT_NE(r.marked, marker::none) << r.path << " removed without being marked";
  }
  EXPECT_EQ(times_removed.size(), static_cast<size_t>(CAPTURES));
  int removed_twice = 0;
  for (const auto& [path, times] : times_removed) {
    EXPECT_EQ(path.rfind(env.dir() + "/race-", 0), 0u) << "not a capture: " << path;
    if (times != 1) ++removed_twice;
  }
  EXPECT_EQ(removed_twice, 0);
  // Everything not a capture is still there.
  const std::set<std::string> left = directory_listing(env.dir());
  for (int i = 0; i < OTHER_FILES; ++i) EXPECT_EQ(left.count("notes-" + std::to_string(i) + ".txt"), 1u);
}

INSTANTIATE_TEST_SUITE_P(Rounds, DeletionRace, ::testing::Range(0, ROUNDS));

}  // namespace
