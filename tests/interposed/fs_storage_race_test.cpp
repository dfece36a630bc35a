// Competing deletions of the same captures: by path, by time over both
// indexes and clear, from several threads at once, while the delete thread
// removes files and the tracker erases their records. This binary defines
// unlink itself (forwarding to the real one) to count removals per path.
#include <csl/fs_storage.hpp>

#include "support/storage_fixture.hpp"
#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex unlinks_mutex;
std::map<std::string, unsigned> unlinks;

}  // namespace

extern "C" int unlink(const char* path) noexcept {
  using unlink_fn = int (*)(const char*);
  static const auto real = reinterpret_cast<unlink_fn>(::dlsym(RTLD_NEXT, "unlink"));
  const int result = real(path);
  const std::lock_guard<std::mutex> lock(unlinks_mutex);
  ++unlinks[path];
  return result;
}

namespace {

using by = csl::fs_entry::deletion_by;

TEST(FsStorageRace, EveryRecordIsMarkedQueuedAndUnlinkedOnce) {
  constexpr unsigned count = 300;
  faitra_test::tmpfs_mount fs(16UL << 20);
  faitra_test::temp_dir fallback;
  const std::string dir = fs.mounted() ? fs.path() : fallback.path();

  std::vector<std::string> names;
  for (unsigned i = 0; i < count; ++i) names.push_back("c" + std::to_string(1000 + i) + ".pcap");
  const auto files = faitra_test::make_captures(dir, names);

  faitra_test::storage_fixture env(dir);
  // Start order and creation order run opposite ways, so the two time
  // sweeps meet in the middle.
  for (unsigned i = 0; i < count; ++i) env.set_times(files[i], count - i, i);
  ASSERT_FALSE(HasFatalFailure());
  env.start();

  auto& storage = env.storage();
  std::latch go(6);
  std::atomic<unsigned long> marked{0};
  std::mutex returned_mutex;
  std::map<std::string, unsigned> returned;  // paths handed back as marked, with multiplicity
  auto note = [&](const std::vector<csl::fs_entry>& records) {
    const std::lock_guard<std::mutex> lock(returned_mutex);
    for (const auto& r : records) ++returned[r.path];
  };

  auto by_path = [&](bool reverse) {
    go.arrive_and_wait();
    for (unsigned n = 0; n < count; ++n) {
      const std::string& path = files[reverse ? count - 1 - n : n];
      csl::fs_entry out;
      if (storage.delete_by_path(out, path, by::requested)) {
        EXPECT_EQ(out.path, path);
        note({out});
        ++marked;
      }
    }
  };
  auto by_time = [&](bool by_start_ts) {
    go.arrive_and_wait();
    for (unsigned low = 0; low <= count; low += 7) {
      std::vector<csl::fs_entry> out;
      const bool result = storage.delete_by_time(out, low, low + 6, by_start_ts, by::cleanup);
      EXPECT_EQ(result, !out.empty());
      note(out);
      marked += out.size();
    }
  };
  auto clear = [&] {
    go.arrive_and_wait();
    for (int round = 0; round < 20; ++round) marked += storage.clear(by::cleanup);
  };

  std::vector<std::thread> threads;
  threads.emplace_back(by_path, false);
  threads.emplace_back(by_path, true);
  threads.emplace_back(by_time, true);
  threads.emplace_back(by_time, false);
  threads.emplace_back(clear);
  go.arrive_and_wait();
  for (auto& t : threads) t.join();

  // Whatever raced, clear() now picks up anything left unmarked.
  marked += storage.clear(by::cleanup);
  EXPECT_EQ(marked.load(), count);
  for (const auto& [path, n] : returned) EXPECT_EQ(n, 1u) << path << " handed back as marked more than once";

  ASSERT_TRUE(faitra_test::wait_until([&] { return env.cache().size() == 0; })) << env.cache().size() << " left";
  ASSERT_TRUE(faitra_test::wait_until([&] { return storage.queued() == 0; }));
  env.stop();  // joins the delete thread: no unlink can follow

  std::map<std::string, unsigned> expected;
  for (const auto& f : files) expected[f] = 1;
  const std::lock_guard<std::mutex> lock(unlinks_mutex);
  EXPECT_EQ(unlinks, expected);
}

}  // namespace
