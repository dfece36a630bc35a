// The filesystem tracker with its inotify thread on real directories: what
// the catalogue holds after captures are written, rewritten, renamed and
// deleted, and what the tracker refuses at construction.
//
// "Nothing happened" is never proven by waiting: a sentinel capture is
// written after the events under test, and once it is catalogued every
// earlier event has been handled (one monitor thread pushes in the order it
// reads, and one worker handles in push order).
#include <csl/fs_events.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/exception.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace {

using csl::fs_entry;
using faitra_test::captured_log;
using faitra_test::text_of;
using faitra_test::tracker_harness;
using faitra_test::wait_until;
using faitra_test::write_and_close;
using faitra_test::write_capture;

// A root "<tmp>/d" to watch and a sibling "<tmp>/out" to rename in from.
class FsTracker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(outside.c_str(), 0755), 0);
  }
  std::string in(const std::string& name) const { return dir + "/" + name; }
  std::string out(const std::string& name) const { return outside + "/" + name; }
  // Once a new sentinel is catalogued, every earlier event has been handled.
  void drain(tracker_harness& h) {
    const std::string sentinel = in("sentinel-" + std::to_string(++_sentinels) + ".pcap");
    write_and_close(sentinel, 1);
    ASSERT_TRUE(h.wait_cached(sentinel));
  }
  std::string summary(tracker_harness& h, const std::string& path) {
    const auto e = h.find(path);
    return e ? text_of(e->key) + " " + text_of(e->start_ts) + " " + text_of(e->end_ts) + " " +
                   std::to_string(e->creation_ts) + " " + std::to_string(e->file_size)
             : "absent";
  }

  faitra_test::temp_dir tmp;
  std::string dir = tmp.file("d");
  std::string outside = tmp.file("out");

 private:
  int _sentinels = 0;
};

TEST_F(FsTracker, CaptureLifecycleIsFollowed) {
  captured_log log;  // before the harness: it must outlive the tracker
  tracker_harness h;
  std::mutex seen_mutex;
  std::set<std::string> seen;
  h.start(dir, {dir}, true, log.log(), [&](const std::string& name) {
    const std::lock_guard<std::mutex> lock(seen_mutex);
    seen.insert(name);
    return faitra_test::is_capture_name(name);
  });
  const std::string path = in("a.pcap");
  write_capture(path, 1000, {"hash-1", 100, 200, 1700000000});
  ASSERT_TRUE(wait_until([&] { return summary(h, path) == "hash-1 100 200 1700000000 1000"; })) << summary(h, path);
  // First the bare record from the create, then the attributes from the
  // second close.
  EXPECT_TRUE(log.contains("Created fs_entry: path: " + path + ", key: null"));
  EXPECT_TRUE(log.contains("Updated fs_entry: path: " + path + ", key: hash-1"));
  {
    const std::lock_guard<std::mutex> lock(seen_mutex);
    EXPECT_EQ(seen.count(path), 1u) << "the monitor's filter is given the full path";
  }
  write_capture(path, 3000, {"hash-2", 300, 400, 1700000100});
  ASSERT_TRUE(wait_until([&] { return summary(h, path) == "hash-2 300 400 1700000100 3000"; })) << summary(h, path);
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_TRUE(h.wait_gone(path));
  EXPECT_TRUE(faitra_test::contents(h.cache()).empty());
  csl::fs_cache::shared_guard lock(h.cache());
  EXPECT_TRUE(h.cache().key_cache().empty());
  EXPECT_TRUE(h.cache().start_ts_cache().empty());
}

TEST_F(FsTracker, RenamedInCaptureGetsItsAttributesOnlyWithItsNextClose) {
  tracker_harness h;
  h.start(dir);
  write_capture(out("moved.pcap"), 500, {"hash-m", 1, 2, 3});
  ASSERT_EQ(std::rename(out("moved.pcap").c_str(), in("moved.pcap").c_str()), 0);
  ASSERT_TRUE(h.wait_cached(in("moved.pcap")));
  const auto moved = h.find(in("moved.pcap"));  // the created event reads the status only
  ASSERT_TRUE(moved.has_value());
  EXPECT_TRUE(moved->key.is_null());
  EXPECT_EQ(moved->file_size, 500u);
  const int fd = ::open(in("moved.pcap").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::close(fd), 0);
  ASSERT_TRUE(wait_until([&] { return summary(h, in("moved.pcap")) == "hash-m 1 2 3 500"; }));
}

TEST_F(FsTracker, DirectoriesUnwatchedSubdirectoriesAndRejectedNamesYieldNothing) {
  tracker_harness h;
  h.start(dir);
  ASSERT_EQ(::mkdir(in("made.pcap").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(out("moved-dir.pcap").c_str(), 0755), 0);
  ASSERT_EQ(std::rename(out("moved-dir.pcap").c_str(), in("moved-dir.pcap").c_str()), 0);
  write_capture(in("made.pcap") + "/inner.pcap", 10, {"hash-i", 1, 2, 3});
  write_capture(in("notes.txt"), 10, {"hash-t", 1, 2, 3});
  write_capture(out("moved.tmp"), 10, {"hash-r", 1, 2, 3});
  ASSERT_EQ(std::rename(out("moved.tmp").c_str(), in("moved.tmp").c_str()), 0);
  drain(h);
  EXPECT_EQ(h.cache().size(), 1u);
}

TEST_F(FsTracker, EventsThatCannotBeAppliedKeepTheCachedRecordAndAreLogged) {
  const std::string path = in("a.pcap");
  write_capture(path, 100, {"hash-old", 10, 20, 30});
  captured_log log;
  tracker_harness h;
  h.start(dir, true, log.log());
  ASSERT_EQ(summary(h, path), "hash-old 10 20 30 100");

  // A close after the hash went: an updated event for a file without hash.
  ASSERT_EQ(::removexattr(path.c_str(), "user.pcap_hash"), 0);
  write_and_close(path, 700);
  drain(h);
  EXPECT_TRUE(log.contains("Failed to read the extended attributes of " + path + "."));
  // A rename over the name: only a moved-to event, so a created task for a
  // path already catalogued.
  write_capture(out("a.pcap"), 900, {"hash-new", 40, 50, 60});
  ASSERT_EQ(std::rename(out("a.pcap").c_str(), path.c_str()), 0);
  drain(h);
  EXPECT_TRUE(log.contains("Failed to insert " + path + " into the cache. The path already existed."));
  EXPECT_EQ(summary(h, path), "hash-old 10 20 30 100");
}

TEST_F(FsTracker, RefusesAGroupOfTwoChannelsAndWatchedPathsOutsideTheRoot) {
  {
    tracker_harness h(2);
    try {
      h.start(dir);
      FAIL() << "a tracker was built on two channels";
    } catch (const cdl::assertion_failure& e) {
      EXPECT_STREQ(e.what(), "Must be built on a single-threaded task_listener_group.");
      EXPECT_EQ(e.file(), "fs_tracker.cpp");
    }
  }
  const std::string d2 = tmp.file("d2"), other = tmp.file("other");
  ASSERT_EQ(::mkdir(d2.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(other.c_str(), 0755), 0);
  write_and_close(in("a.pcap"), 1);
  write_and_close(d2 + "/b.pcap", 1);
  const struct {
    std::set<std::string> paths;
    std::string error;  // "" when accepted
    size_t scanned;
  } cases[] = {
      {{dir, d2}, "", 2},  // a plain prefix test: "<tmp>/d2" starts with "<tmp>/d"
      {{dir, other}, "Root path doesn't match on " + other + ".", 0},  // checked before any scan
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scanned);
    tracker_harness h;
    try {
      h.start(dir, c.paths, false);
      EXPECT_EQ(c.error, "");
    } catch (const cdl::assertion_failure& e) {
      EXPECT_EQ(e.what(), c.error);
    }
    EXPECT_EQ(h.cache().size(), c.scanned);
  }
}

// Collects the paths of the two kinds of task the scan announces.
struct announcements {
  std::mutex mutex;
  std::vector<std::string> missing, empty;
  void on_missing(cdl::task_ptr<csl::fs_entry_missing_xattr_at_init>& t) {
    const std::lock_guard<std::mutex> lock(mutex);
    missing.push_back(t->entry.path);
  }
  void on_empty(cdl::task_ptr<csl::fs_entry_has_xattr_but_empty_at_init>& t) {
    const std::lock_guard<std::mutex> lock(mutex);
    empty.push_back(t->entry.path + " " + text_of(t->entry.key));
  }
  size_t count() {
    const std::lock_guard<std::mutex> lock(mutex);
    return missing.size() + empty.size();
  }
};

TEST_F(FsTracker, WithoutMonitoringItOnlyScansAndAnnounces) {
  write_and_close(in("bare-236.pcap"), 236);
  write_and_close(in("bare-237.pcap"), 237);
  write_capture(in("keyed-small.pcap"), 236, {"hash-s", 1, 2, 3});
  write_capture(in("keyed-large.pcap"), 237, {"hash-l", 1, 2, 3});
  captured_log log;
  announcements seen;  // outlives the harness, whose worker calls it
  tracker_harness h;
  // The scan announcements have no static name: a host subscribes by the
  // identity their objects report.
  h.channel().register_task_handler_as(csl::fs_entry_missing_xattr_at_init(csl::fs_entry()).type(),
                                       &announcements::on_missing, &seen, cdl::task_handler_order::normal,
                                       csl::FS_EVENT_VERSION);
  h.channel().register_task_handler_as(csl::fs_entry_has_xattr_but_empty_at_init(csl::fs_entry()).type(),
                                       &announcements::on_empty, &seen, cdl::task_handler_order::normal,
                                       csl::FS_EVENT_VERSION);
  auto threads = [] {
    const auto it = std::filesystem::directory_iterator("/proc/self/task");
    return std::distance(begin(it), end(it));
  };
  const auto threads_before = threads();
  EXPECT_FALSE(h.start(dir, false, log.log()).monitoring());
  EXPECT_EQ(threads(), threads_before);
  const auto& dispatcher = (*h.channel().dispatchers())[h.channel().worker_id()];
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_created>(), csl::FS_EVENT_VERSION), 0u);
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_deleted>(), csl::FS_EVENT_VERSION), 0u);
  EXPECT_EQ(h.cache().size(), 4u);

  ASSERT_TRUE(wait_until([&] { return seen.count() == 3; }));
  const std::lock_guard<std::mutex> lock(seen.mutex);
  EXPECT_EQ(std::set<std::string>(seen.missing.begin(), seen.missing.end()),
            (std::set<std::string>{in("bare-236.pcap"), in("bare-237.pcap")}));
  EXPECT_EQ(seen.empty, std::vector<std::string>{in("keyed-small.pcap") + " hash-s"});
  // The limit given to the tracker (236 here) decides the "empty " wording.
  EXPECT_TRUE(log.contains("Loaded empty fs_entry without xattr's: path: " + in("bare-236.pcap")));
  EXPECT_TRUE(log.contains("Loaded fs_entry without xattr's: path: " + in("bare-237.pcap")));
  EXPECT_TRUE(log.contains("Loaded empty fs_entry with xattr's: path: " + in("keyed-small.pcap")));
}

}  // namespace
