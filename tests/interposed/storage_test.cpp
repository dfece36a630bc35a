// The capture storage on a real directory, with the tracker watching it and
// the delete thread running between the runtime's start and stop. Log lines
// are read from syslog (recorded).
#include <csl/fs_storage.hpp>

#include "support/catalogue_env.hpp"
#include "support/interpose.hpp"

#include <gtest/gtest.h>

namespace {

using csl::fs_entry;
using namespace faitra_test;
using by = fs_entry::deletion_by;
size_t logged(const std::string& fragment) { return syslog_lines(fragment).size(); }

// Captures a..d whose creation order is the reverse of their start order, so
// a selection shows which index it used; nothing is deleted before start().
env_options four_captures() {
  return {.log = recorded_log(), .before_scan = [](const std::string& dir) {
            for (unsigned long i = 0; i < 4; ++i) {
              const long creation = 400 - 100 * static_cast<long>(i);
              write_capture(dir + "/" + char('a' + i) + ".pcap", 0, {"h", (i + 1) * 10, {}, creation});
            }
          }};
}

std::vector<std::string> names(const std::vector<fs_entry>& records) {
  std::vector<std::string> out;
  for (const auto& r : records) out.push_back(r.path.substr(r.path.rfind('/') + 1));
  return out;
}

TEST(FsStorage, DeletionByTimeMarksTheClosedRangeOfTheChosenIndexAndAppends) {
  const struct {
    unsigned long start, end;
    bool by_start_ts;
    std::vector<std::string> marked;  // in the index's order, after what `out` held
  } cases[] = {
      {20, 40, true, {"earlier", "b.pcap", "c.pcap", "d.pcap"}}, {10, 10, true, {"earlier", "a.pcap"}},
      {21, 29, true, {"earlier"}},  {41, 1000, true, {"earlier"}}, {40, 20, true, {"earlier"}},
      {100, 300, false, {"earlier", "d.pcap", "c.pcap", "b.pcap"}}, {401, ~0UL, false, {"earlier"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::to_string(c.start) + ".." + std::to_string(c.end) + (c.by_start_ts ? " start" : " creation"));
    catalogue_env env(four_captures());
    std::vector<fs_entry> out{fs_entry("/earlier")};
    EXPECT_EQ(env.storage().delete_by_time(out, c.start, c.end, c.by_start_ts, by::cleanup), c.marked.size() > 1);
    EXPECT_EQ(names(out), c.marked);
    EXPECT_EQ(env.storage().queued(), c.marked.size() - 1);
    for (const char* name : {"a.pcap", "b.pcap", "c.pcap", "d.pcap"}) {
      const bool selected = std::find(c.marked.begin(), c.marked.end(), name) != c.marked.end();
      EXPECT_EQ(env.marker(name), selected ? by::cleanup : by::none) << name;
    }
  }
}

TEST(FsStorage, EachCaptureIsMarkedQueuedAndRemovedOnceWhoeverAsksAndAFailureStopsNothing) {
  clear_records();
  catalogue_env env(four_captures());
  // A non-empty directory with a capture's name, catalogued directly, first in the queue.
  const std::string stuck = env.path("stuck.pcap");
  ASSERT_EQ(::mkdir(stuck.c_str(), 0755), 0);
  write_and_close(stuck + "/inner", 1);
  ASSERT_TRUE(env.cache().insert(std::make_shared<fs_entry>(stuck)));
  ASSERT_TRUE(env.storage().delete_by_path(stuck, by::requested));
  fs_entry out("untouched");
  ASSERT_TRUE(env.storage().delete_by_path(out, env.path("a.pcap"), by::cleanup));
  EXPECT_EQ(out.deletion.load(), by::cleanup);
  out = fs_entry("untouched");
  EXPECT_FALSE(env.storage().delete_by_path(out, env.path("a.pcap"), by::requested));
  EXPECT_FALSE(env.storage().delete_by_path(env.path("none.pcap"), by::requested));
  EXPECT_EQ(out.path, "untouched");
  std::vector<fs_entry> marked;
  EXPECT_TRUE(env.storage().delete_by_time(marked, 0, 20, true, by::requested));
  EXPECT_EQ(names(marked), std::vector<std::string>{"b.pcap"});
  EXPECT_EQ(env.storage().clear(by::requested), 2u);  // counts only what it marks itself
  EXPECT_EQ(env.storage().clear(by::requested), 0u);
  EXPECT_FALSE(env.storage().delete_by_time(0, ~0UL, false, by::requested));
  EXPECT_EQ(env.marker("a.pcap"), by::cleanup);  // not overwritten
  EXPECT_EQ(env.storage().queued(), 5u);
  EXPECT_TRUE(exists(env.path("a.pcap")));

  env.start_runtime();
  for (const char* name : {"a.pcap", "b.pcap", "c.pcap", "d.pcap"}) {
    ASSERT_TRUE(env.wait_gone(name)) << name;
    EXPECT_EQ(logged("Marking capture file to be deleted: " + env.path(name)), 1u) << name;
    EXPECT_EQ(logged("Deleting capture file: " + env.path(name) + "..."), 1u) << name;
  }
  EXPECT_EQ(logged("Failed to delete capture file: " + stuck + ": "), 1u);
  EXPECT_EQ(env.marker("stuck.pcap"), by::requested) << "not retried, still marked";
  env.stop_runtime();  // joins the delete thread: what is queued now stays
  ASSERT_TRUE(env.add_capture("e.pcap", 0, attributes(1)));
  ASSERT_TRUE(env.storage().delete_by_path(env.path("e.pcap"), by::requested));
  EXPECT_TRUE(env.storage().queued() == 1 && exists(env.path("e.pcap")));
}

}  // namespace
