// Deletion races on real threads: every way of deleting captures at once
// must unlink each capture exactly once, only while it is catalogued and
// marked (unlink is recorded, sleep instant; support/interpose.hpp).
#include <csl/fs_cleaner.hpp>

#include "support/catalogue_env.hpp"
#include "support/interpose.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <numeric>
#include <random>
#include <thread>

namespace {

using namespace faitra_test;
using marker = csl::fs_entry::deletion_by;
constexpr unsigned long NS = 1000000000UL;

std::string name_of(int i) { return "race-" + std::to_string(10000 + i) + ".pcap"; }
unsigned long creation_of(int i) { return 1000UL + static_cast<unsigned long>(i); }

// 10,000 captures in a tmpfs (and 50 other files): four host threads delete
// by path, by start time, by creation time and clear everything, while an
// automatic and an age cleanup run. Each round is its own process.
class DeletionRace : public ::testing::TestWithParam<int> {};

TEST_P(DeletionRace, EveryCaptureIsUnlinkedExactlyOnceWhileMarked) {
  constexpr int CAPTURES = 10000, OTHERS = 50;
  catalogue_env env({.tmpfs_bytes = 96UL << 20, .before_scan = [](const std::string& dir) {
                       for (int i = 0; i < CAPTURES; ++i) {
                         const unsigned long start = creation_of(i) * NS;
                         write_capture(dir + "/" + name_of(i), 300, {"h", start, start + 1, 1000L + i});
                       }
                       for (int i = 0; i < OTHERS; ++i) write_and_close(dir + "/" + std::to_string(i) + ".txt", 1);
                     }});
  if (!env.ready()) GTEST_SKIP() << env.reason();
  ASSERT_EQ(env.cache().size(), static_cast<size_t>(CAPTURES));
  removal_watch watch(env.cache());
  env.start_runtime();
  // The captures fill about 40 % of the tmpfs: a trigger of 10 % starts the
  // automatic cleanup at once and a stop of 5 % makes it want nearly all.
  csl::fs_cleaner& cleaner = env.build_cleaner({.trigger = 0.1f, .stop = 0.05f});
  std::vector<int> order(CAPTURES);
  std::iota(order.begin(), order.end(), 0);
  std::shuffle(order.begin(), order.end(), std::mt19937(static_cast<unsigned>(GetParam())));
  std::atomic<int> ready{0}, by_path{0};
  auto together = [&] {
    ++ready;
    wait_until([&] { return ready.load() == 5; });
  };
  csl::fs_storage& storage = env.storage();
  std::vector<std::thread> threads;
  threads.emplace_back([&] {  // single captures in random order
    together();
    for (int i : order) {
      storage.delete_by_path(env.path(name_of(i)), marker::requested);
      ++by_path;
    }
  });
  threads.emplace_back([&] {  // ranges by start time, newest first
    together();
    for (int i = CAPTURES - 100; i >= 0; i -= 100) {
      storage.delete_by_time(creation_of(i) * NS, creation_of(i + 99) * NS, true, marker::requested);
    }
  });
  threads.emplace_back([&] {  // ranges by creation time, from the middle out
    together();
    for (int step = 0; step < CAPTURES / 2; step += 250) {
      storage.delete_by_time(creation_of(CAPTURES / 2 + step), creation_of(CAPTURES / 2 + step + 249), false,
                             marker::requested);
      storage.delete_by_time(creation_of(CAPTURES / 2 - step - 250), creation_of(CAPTURES / 2 - step - 1), false,
                             marker::requested);
    }
  });
  threads.emplace_back([&] {  // everything, once the others are under way
    together();
    wait_until([&] { return by_path.load() >= CAPTURES / 10; });
    storage.clear(marker::requested);
  });
  threads.emplace_back([&] {  // an operator's age cleanup of the older half
    together();
    cleaner.start_age_cleanup(csl::age_cleanup_state::files, creation_of(CAPTURES / 2));
  });
  for (std::thread& t : threads) t.join();
  auto files = [&] { return std::distance(std::filesystem::directory_iterator(env.dir()), {}); };
  ASSERT_TRUE(wait_until(
      [&] {
        return env.cache().size() == 0 && files() == OTHERS && !cleaner.cleanup_in_progress() &&
               storage.queued() == 0;
      },
      std::chrono::seconds(120)))
      << env.cache().size() << " records and " << files() << " files left";
  std::map<std::string, int> times;
  for (const removal& r : removal_watch::removals()) {
    ++times[r.path];
    EXPECT_TRUE(r.catalogued) << r.path << " removed after it left the catalogue";
    EXPECT_NE(r.marked, marker::none) << r.path << " removed unmarked";
  }
  EXPECT_EQ(times.size(), static_cast<size_t>(CAPTURES));
  EXPECT_EQ(std::count_if(times.begin(), times.end(), [](const auto& t) { return t.second != 1; }), 0);
}

INSTANTIATE_TEST_SUITE_P(Rounds, DeletionRace, ::testing::Range(0, 20));

}  // namespace
