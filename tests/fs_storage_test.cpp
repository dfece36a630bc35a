// The capture storage on a real directory, with the tracker watching it and
// the delete thread running between the runtime's start and stop.
#include <csl/fs_storage.hpp>

#include "support/storage_fixture.hpp"
#include "support/temp_dir.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

namespace {

using csl::fs_entry;
using faitra_test::exists_on_disk;
using faitra_test::make_captures;
using faitra_test::stdout_log;
using faitra_test::storage_fixture;
using faitra_test::temp_dir;
using faitra_test::wait_until;
using by = csl::fs_entry::deletion_by;

std::string marking(const std::string& path) {
  return stdout_log::line("Marking capture file to be deleted: " + path);
}
std::string deleting(const std::string& path) { return stdout_log::line("Deleting capture file: " + path + "..."); }
std::string deleted(const std::string& path) { return stdout_log::line("Deleting capture file: " + path + " done."); }

std::vector<std::string> paths_of(const std::vector<fs_entry>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.path);
  return out;
}

TEST(FsStorage, DeleteByPathMarksOnceAndTheThreadRemovesOnce) {
  temp_dir dir;
  const auto files = make_captures(dir.path(), {"a.pcap", "b.pcap"});
  stdout_log log;
  storage_fixture env(dir.path(), log.log());
  // Before the thread runs: the first call marks and queues, the second
  // finds the record marked; an unknown path is not an error.
  fs_entry out;
  ASSERT_TRUE(env.storage().delete_by_path(out, files[0], by::cleanup));
  EXPECT_EQ(out.path, files[0]);
  EXPECT_EQ(out.deletion.load(), by::cleanup);
  fs_entry untouched("sentinel");
  EXPECT_FALSE(env.storage().delete_by_path(untouched, files[0], by::requested));
  EXPECT_EQ(untouched.path, "sentinel");
  EXPECT_FALSE(env.storage().delete_by_path(dir.file("missing.pcap"), by::requested));
  EXPECT_EQ(env.marker(files[0]), by::cleanup);
  EXPECT_EQ(env.storage().queued(), 1u);
  EXPECT_TRUE(exists_on_disk(files[0]));

  env.start();
  ASSERT_TRUE(env.wait_gone(files[0]));
  EXPECT_FALSE(exists_on_disk(files[0]));
  ASSERT_TRUE(wait_until([&] { return log.has_line(deleted(files[0])); }));
  EXPECT_EQ(log.count_line(marking(files[0])), 1u);
  EXPECT_EQ(log.count_line(deleting(files[0])), 1u);
  EXPECT_EQ(log.count_prefix(stdout_log::line("Failed")), 0u);
  EXPECT_TRUE(exists_on_disk(files[1]));
  EXPECT_EQ(env.marker(files[1]), by::none);
  EXPECT_EQ(env.storage().queued(), 0u);
}

// Four captures whose creation order is the reverse of their start order,
// so a selection shows which index was used.
struct time_case {
  const char* name;
  unsigned long start, end;
  bool by_start_ts;
  std::vector<std::string> marked;  // in the index's key order
};
void PrintTo(const time_case& c, std::ostream* os) { *os << c.name; }

class FsStorageByTime : public ::testing::TestWithParam<time_case> {};

TEST_P(FsStorageByTime, MarksTheClosedRangeOfTheChosenIndexAndAppends) {
  const time_case& c = GetParam();
  temp_dir dir;
  make_captures(dir.path(), {"a.pcap", "b.pcap", "c.pcap", "d.pcap"});
  storage_fixture env(dir.path());
  env.set_times(dir.file("a.pcap"), 400, 10);  // creation, start
  env.set_times(dir.file("b.pcap"), 300, 20);
  env.set_times(dir.file("c.pcap"), 200, 30);
  env.set_times(dir.file("d.pcap"), 100, 40);
  ASSERT_FALSE(HasFatalFailure());

  std::vector<fs_entry> out{fs_entry("earlier")};
  EXPECT_EQ(env.storage().delete_by_time(out, c.start, c.end, c.by_start_ts, by::cleanup), !c.marked.empty());
  std::vector<std::string> expected{"earlier"};
  for (const auto& name : c.marked) expected.push_back(dir.file(name));
  EXPECT_EQ(paths_of(out), expected);
  EXPECT_EQ(env.storage().queued(), c.marked.size());
  for (const char* name : {"a.pcap", "b.pcap", "c.pcap", "d.pcap"}) {
    const bool selected = std::find(c.marked.begin(), c.marked.end(), name) != c.marked.end();
    EXPECT_EQ(env.marker(dir.file(name)), selected ? by::cleanup : by::none) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, FsStorageByTime,
    ::testing::Values(time_case{"StartBoundsAreInclusive", 20, 40, true, {"b.pcap", "c.pcap", "d.pcap"}},
                      time_case{"StartSinglePoint", 10, 10, true, {"a.pcap"}},
                      time_case{"StartGapBetweenKeys", 21, 29, true, {}},
                      time_case{"StartPastEveryKey", 41, 1000, true, {}},
                      time_case{"CreationBoundsAreInclusive", 100, 300, false, {"d.pcap", "c.pcap", "b.pcap"}},
                      time_case{"CreationPastEveryKey", 401, ~0UL, false, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(FsStorage, RecordsMarkedElsewhereAreNeitherReturnedLoggedNorQueuedAgain) {
  temp_dir dir;
  const auto files = make_captures(dir.path(), {"a.pcap", "b.pcap", "c.pcap"});
  stdout_log log;
  storage_fixture env(dir.path(), log.log());
  env.set_times(files[0], 1, 10);
  env.set_times(files[1], 2, 20);
  ASSERT_FALSE(HasFatalFailure());
  ASSERT_TRUE(env.storage().delete_by_path(files[0], by::cleanup));
  std::vector<fs_entry> out;
  EXPECT_TRUE(env.storage().delete_by_time(out, 0, 100, true, by::requested));
  EXPECT_EQ(paths_of(out), std::vector<std::string>{files[1]});
  EXPECT_EQ(env.marker(files[0]), by::cleanup);  // not overwritten
  out.clear();
  EXPECT_FALSE(env.storage().delete_by_time(out, 0, 100, false, by::requested));
  EXPECT_TRUE(out.empty());
  // clear() counts only what it marks itself.
  EXPECT_EQ(env.storage().clear(by::requested), 1u);
  EXPECT_EQ(env.storage().clear(by::requested), 0u);
  EXPECT_EQ(env.storage().queued(), 3u);
  for (const auto& f : files) EXPECT_EQ(log.count_line(marking(f)), 1u) << f;

  env.start();
  for (const auto& f : files) ASSERT_TRUE(env.wait_gone(f)) << f;
  for (const auto& f : files) EXPECT_FALSE(exists_on_disk(f)) << f;
  EXPECT_EQ(env.storage().clear(by::requested), 0u);  // on an empty catalogue
}

TEST(FsStorage, FileThatCannotBeRemovedIsLoggedAndStaysMarked) {
  temp_dir dir;
  const auto files = make_captures(dir.path(), {"good.pcap"});
  stdout_log log;
  storage_fixture env(dir.path(), log.log());
  // A non-empty directory with a capture's name, catalogued directly (the
  // monitor ignores directories).
  const std::string stuck = dir.file("stuck.pcap");
  ASSERT_EQ(::mkdir(stuck.c_str(), 0755), 0);
  make_captures(stuck, {"inner"});
  ASSERT_TRUE(env.cache().insert(std::make_shared<fs_entry>(stuck)));
  ASSERT_TRUE(env.storage().delete_by_path(stuck, by::requested));
  ASSERT_TRUE(env.storage().delete_by_path(files[0], by::requested));
  env.start();
  // The queue is worked in order and the failure does not stop the thread.
  ASSERT_TRUE(env.wait_gone(files[0]));
  ASSERT_TRUE(wait_until([&] { return log.has_line(deleted(files[0])); }));
  EXPECT_EQ(log.count_prefix(stdout_log::line("Failed to delete capture file: " + stuck + ": ")), 1u);
  EXPECT_EQ(log.count_line(deleting(stuck)), 1u);
  EXPECT_EQ(log.count_line(deleted(stuck)), 0u);
  EXPECT_TRUE(exists_on_disk(stuck));
  EXPECT_EQ(env.marker(stuck), by::requested);
}

TEST(FsStorage, AfterStopRecordsAreQueuedButNotRemoved) {
  temp_dir dir;
  const auto files = make_captures(dir.path(), {"a.pcap"});
  storage_fixture env(dir.path());
  env.start();
  env.stop();  // joins the delete thread
  EXPECT_TRUE(env.storage().delete_by_path(files[0], by::requested));
  EXPECT_EQ(env.storage().queued(), 1u);
  EXPECT_TRUE(exists_on_disk(files[0]));
}

TEST(FsStorage, StateMatchesStatvfsOfTheCaptureFileSystem) {
  faitra_test::tmpfs_mount fs(4UL << 20);
  if (!fs.mounted()) GTEST_SKIP() << fs.reason();
  storage_fixture env(fs.path());
  faitra_test::write_and_close(fs.file("big.pcap"), 1UL << 20);
  const auto state = env.storage().state();
  struct statvfs figures {};
  ASSERT_EQ(::statvfs(fs.path().c_str(), &figures), 0);
  EXPECT_EQ(state.total, 4UL << 20);
  EXPECT_EQ(state.used, state.total - figures.f_bsize * figures.f_bfree);
  EXPECT_GE(state.used, 1UL << 20);
  EXPECT_EQ(state.to_json_str(), "{\"disk_space\":{\"used\":" + std::to_string(state.used) +
                                     ",\"total\":" + std::to_string(state.total) + "}}");
}

}  // namespace
