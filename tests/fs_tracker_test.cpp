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

// The two scan announcements have no static name, so a host that listens to
// them supplies their identities itself, from their task names (the same
// identities their type() gives).
namespace cdl {
template <>
inline const task_type& task_type::identify<csl::fs_entry_missing_xattr_at_init>() {
  static const task_type type = identify_from_name("fs_entry_missing_xattr_at_init");
  return type;
}
template <>
inline const task_type& task_type::identify<csl::fs_entry_has_xattr_but_empty_at_init>() {
  static const task_type type = identify_from_name("fs_entry_has_xattr_but_empty_at_init");
  return type;
}
}  // namespace cdl

namespace {

using csl::fs_entry;
using faitra_test::capture_attributes;
using faitra_test::captured_log;
using faitra_test::text_of;
using faitra_test::tracker_harness;
using faitra_test::wait_until;
using faitra_test::write_and_close;
using faitra_test::write_capture;

// A root directory "<tmp>/d" to watch and a sibling "<tmp>/out" on the same
// file system, from which files and directories are renamed in.
class FsTracker : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(outside.c_str(), 0755), 0);
  }
  std::string in(const std::string& name) const { return dir + "/" + name; }
  std::string out(const std::string& name) const { return outside + "/" + name; }

  // Writes a sentinel capture and waits until the tracker has catalogued
  // it, which means every event before it has been handled.
  void drain(tracker_harness& h) {
    const std::string sentinel = in("sentinel-" + std::to_string(++_sentinels) + ".pcap");
    write_and_close(sentinel, 1);
    ASSERT_TRUE(h.wait_cached(sentinel));
  }

  faitra_test::temp_dir tmp;
  std::string dir = tmp.file("d");
  std::string outside = tmp.file("out");

 private:
  int _sentinels = 0;
};

TEST_F(FsTracker, CaptureLifecycleIsFollowed) {
  captured_log log;  // declared before the harness: it must outlive the tracker
  tracker_harness h;
  std::mutex seen_mutex;
  std::set<std::string> seen;
  h.start(dir, {dir}, true, log.log(), [&](const std::string& name) {
    std::lock_guard<std::mutex> lock(seen_mutex);
    seen.insert(name);
    return faitra_test::is_capture_name(name);
  });
  const std::string path = in("a.pcap");

  SCOPED_TRACE("written the capture writer's way");
  write_capture(path, 1000, {"hash-1", 100, 200, 1700000000});
  ASSERT_TRUE(wait_until([&] {
    const auto e = h.find(path);
    return e && !e->key.is_null();
  }));
  fs_entry e = *h.find(path);
  EXPECT_EQ(*e.key, "hash-1");
  EXPECT_EQ(text_of(e.start_ts), "100");
  EXPECT_EQ(text_of(e.end_ts), "200");
  EXPECT_EQ(e.creation_ts, 1700000000u);
  EXPECT_EQ(e.file_size, 1000u);
  EXPECT_EQ(h.cache().size(), 1u);
  // First the bare record from the create, then the attributes from the
  // second close.
  EXPECT_TRUE(log.contains("Created fs_entry: path: " + path + ", key: null"));
  EXPECT_TRUE(log.contains("Updated fs_entry: path: " + path + ", key: hash-1"));
  {
    // The monitor's filter is given the full path.
    std::lock_guard<std::mutex> lock(seen_mutex);
    EXPECT_EQ(seen.count(path), 1u);
  }

  SCOPED_TRACE("rewritten");
  write_capture(path, 3000, {"hash-2", 300, 400, 1700000100});
  ASSERT_TRUE(wait_until([&] { return text_of(h.find(path).value_or(fs_entry()).key) == "hash-2"; }));
  e = *h.find(path);
  EXPECT_EQ(text_of(e.start_ts), "300");
  EXPECT_EQ(text_of(e.end_ts), "400");
  EXPECT_EQ(e.creation_ts, 1700000100u);
  EXPECT_EQ(e.file_size, 3000u);

  SCOPED_TRACE("deleted");
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_TRUE(h.wait_gone(path));
  EXPECT_EQ(h.cache().size(), 0u);
  {
    // Every index forgets the record, not just the path index.
    csl::fs_cache::shared_guard lock(h.cache());
    EXPECT_EQ(h.cache().key_cache().count("hash-2"), 0u);
    EXPECT_TRUE(h.cache().start_ts_cache().empty());
  }
}

TEST_F(FsTracker, RenameIntoTheDirectoryCreatesARecord) {
  tracker_harness h;
  h.start(dir);
  write_capture(out("moved.pcap"), 500, {"hash-m", 1, 2, 3});
  ASSERT_EQ(std::rename(out("moved.pcap").c_str(), in("moved.pcap").c_str()), 0);
  ASSERT_TRUE(h.wait_cached(in("moved.pcap")));
  // A created event reads the file's status only; the attributes come with
  // the file's next close after writing.
  fs_entry e = *h.find(in("moved.pcap"));
  EXPECT_EQ(e.file_size, 500u);
  EXPECT_TRUE(e.key.is_null());

  const int fd = ::open(in("moved.pcap").c_str(), O_WRONLY);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::close(fd), 0);
  ASSERT_TRUE(wait_until([&] { return text_of(h.find(in("moved.pcap")).value_or(fs_entry()).key) == "hash-m"; }));
  EXPECT_EQ(h.find(in("moved.pcap"))->creation_ts, 3u);
}

TEST_F(FsTracker, DirectoriesAndRejectedNamesYieldNothing) {
  tracker_harness h;
  h.start(dir);

  // A directory made in place, one renamed in (a rename alone would make a
  // created task), a capture inside a subdirectory (not watched), and files
  // whose names the filter rejects, written in place and renamed in.
  ASSERT_EQ(::mkdir(in("made.pcap").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(out("moved-dir.pcap").c_str(), 0755), 0);
  ASSERT_EQ(std::rename(out("moved-dir.pcap").c_str(), in("moved-dir.pcap").c_str()), 0);
  write_capture(in("made.pcap") + "/inner.pcap", 10, {"hash-i", 1, 2, 3});
  write_capture(in("notes.txt"), 10, {"hash-t", 1, 2, 3});
  write_capture(out("moved.tmp"), 10, {"hash-r", 1, 2, 3});
  ASSERT_EQ(std::rename(out("moved.tmp").c_str(), in("moved.tmp").c_str()), 0);

  drain(h);
  std::vector<std::string> cached;
  for (const auto& [path, r] : faitra_test::contents(h.cache())) cached.push_back(path);
  EXPECT_EQ(cached, std::vector<std::string>{in("sentinel-1.pcap")});
}

TEST_F(FsTracker, UpdateWithoutHashKeepsTheCachedRecord) {
  const std::string path = in("a.pcap");
  write_capture(path, 100, {"hash-old", 10, 20, 30});
  captured_log log;
  tracker_harness h;
  h.start(dir, true, log.log());
  ASSERT_EQ(text_of(h.find(path).value_or(fs_entry()).key), "hash-old");

  // The hash disappears, then the file is rewritten: the close brings an
  // updated event for a file without hash.
  ASSERT_EQ(::removexattr(path.c_str(), "user.pcap_hash"), 0);
  write_and_close(path, 700);

  drain(h);
  EXPECT_TRUE(log.contains("Failed to read the extended attributes of " + path + "."));
  const fs_entry e = *h.find(path);
  EXPECT_EQ(text_of(e.key), "hash-old");
  EXPECT_EQ(e.file_size, 100u);
  EXPECT_EQ(text_of(e.start_ts), "10");
  EXPECT_EQ(e.creation_ts, 30u);
}

TEST_F(FsTracker, CreatedEventForAScannedPathKeepsTheOldRecord) {
  const std::string path = in("a.pcap");
  write_capture(path, 100, {"hash-old", 10, 20, 30});
  captured_log log;
  tracker_harness h;
  h.start(dir, true, log.log());
  ASSERT_TRUE(h.find(path).has_value());

  // A rename over the name gives only a moved-to event: a created task for
  // a path the scan already catalogued.
  write_capture(out("a.pcap"), 900, {"hash-new", 40, 50, 60});
  ASSERT_EQ(std::rename(out("a.pcap").c_str(), path.c_str()), 0);

  drain(h);
  EXPECT_TRUE(log.contains("Failed to insert " + path + " into the cache. The path already existed."));
  const fs_entry e = *h.find(path);
  EXPECT_EQ(text_of(e.key), "hash-old");
  EXPECT_EQ(e.file_size, 100u);
  EXPECT_EQ(e.creation_ts, 30u);
}

TEST_F(FsTracker, RequiresASingleChannelGroup) {
  tracker_harness h(2);
  ASSERT_EQ(h.listeners().task_channels().size(), 2u);
  try {
    h.start(dir);
    FAIL() << "a tracker was built on two channels";
  } catch (const cdl::assertion_failure& e) {
    EXPECT_EQ(std::string(e.what()), "Must be built on a single-threaded task_listener_group.");
    EXPECT_EQ(e.file(), "fs_tracker.cpp");
  }
}

TEST_F(FsTracker, WatchedPathsMustStartWithTheRoot) {
  const std::string d2 = tmp.file("d2");
  const std::string other = tmp.file("other");
  ASSERT_EQ(::mkdir(d2.c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(other.c_str(), 0755), 0);
  write_and_close(in("a.pcap"), 1);
  write_and_close(d2 + "/b.pcap", 1);

  struct {
    const char* label;
    std::set<std::string> paths;
    std::string error;  // "" when accepted
    size_t scanned;
  } const cases[] = {
      {"the root itself", {dir}, "", 1},
      // A plain prefix comparison: "<tmp>/d2" starts with "<tmp>/d".
      {"a sibling sharing the prefix", {dir, d2}, "", 2},
      {"outside the root", {other}, "Root path doesn't match on " + other + ".", 0},
      // Every path is checked before any is scanned.
      {"one good, one outside", {dir, other}, "Root path doesn't match on " + other + ".", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    tracker_harness h;
    try {
      h.start(dir, c.paths, false);
      EXPECT_EQ(c.error, "");
    } catch (const cdl::assertion_failure& e) {
      EXPECT_EQ(std::string(e.what()), c.error);
    }
    EXPECT_EQ(h.cache().size(), c.scanned);
  }
}

// Collects the two kinds of task the scan announces.
struct announcements {
  std::mutex mutex;
  std::vector<fs_entry> missing;
  std::vector<fs_entry> empty;
  void on_missing(cdl::task_ptr<csl::fs_entry_missing_xattr_at_init>& t) {
    std::lock_guard<std::mutex> lock(mutex);
    missing.push_back(t->entry);
  }
  void on_empty(cdl::task_ptr<csl::fs_entry_has_xattr_but_empty_at_init>& t) {
    std::lock_guard<std::mutex> lock(mutex);
    empty.push_back(t->entry);
  }
  bool counts_are(size_t m, size_t e) {
    std::lock_guard<std::mutex> lock(mutex);
    return missing.size() == m && empty.size() == e;
  }
};

size_t thread_count() {
  size_t n = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

TEST_F(FsTracker, WithoutMonitoringOnlyScansAndAnnounces) {
  write_and_close(in("bare-236.pcap"), 236);
  write_and_close(in("bare-237.pcap"), 237);
  write_capture(in("keyed-small.pcap"), 236, {"hash-s", 1, 2, 3});
  write_capture(in("keyed-large.pcap"), 237, {"hash-l", 1, 2, 3});

  captured_log log;
  announcements seen;  // outlives the harness, whose worker calls it
  tracker_harness h;
  h.channel().register_task_handler(&announcements::on_missing, &seen, cdl::task_handler_order::normal,
                                    csl::FS_EVENT_VERSION);
  h.channel().register_task_handler(&announcements::on_empty, &seen, cdl::task_handler_order::normal,
                                    csl::FS_EVENT_VERSION);
  const size_t threads_before = thread_count();
  csl::fs_tracker& tracker = h.start(dir, false, log.log());

  EXPECT_EQ(h.cache().size(), 4u);
  EXPECT_FALSE(tracker.monitoring());
  EXPECT_EQ(thread_count(), threads_before);
  const auto& dispatcher = (*h.channel().dispatchers())[h.channel().worker_id()];
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_created>(), csl::FS_EVENT_VERSION), 0u);
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_updated>(), csl::FS_EVENT_VERSION), 0u);
  EXPECT_EQ(dispatcher.handler_count(cdl::task_type::identify<csl::fs_entry_deleted>(), csl::FS_EVENT_VERSION), 0u);

  ASSERT_TRUE(wait_until([&] { return seen.counts_are(2, 1); }));
  std::lock_guard<std::mutex> lock(seen.mutex);
  std::set<std::string> missing;
  for (const auto& e : seen.missing) missing.insert(e.path);
  EXPECT_EQ(missing, (std::set<std::string>{in("bare-236.pcap"), in("bare-237.pcap")}));
  // The announcement carries the scanned record, metadata included.
  EXPECT_EQ(seen.empty.at(0).path, in("keyed-small.pcap"));
  EXPECT_EQ(text_of(seen.empty.at(0).key), "hash-s");
  EXPECT_EQ(seen.empty.at(0).file_size, 236u);
  // The size given to the tracker (236 here) decides the "empty " wording,
  // inclusive.
  EXPECT_TRUE(log.contains("Loaded empty fs_entry without xattr's: path: " + in("bare-236.pcap")));
  EXPECT_TRUE(log.contains("Loaded fs_entry without xattr's: path: " + in("bare-237.pcap")));
  EXPECT_TRUE(log.contains("Loaded empty fs_entry with xattr's: path: " + in("keyed-small.pcap")));
}

TEST_F(FsTracker, StopWhileIdleReturns) {
  tracker_harness h;
  csl::fs_tracker& tracker = h.start(dir);
  ASSERT_TRUE(tracker.monitoring());
  tracker.stop_monitoring();
  EXPECT_FALSE(tracker.monitoring());
}

}  // namespace
