// The tracker with its inotify thread on real directories: what the
// catalogue holds after captures are written, rewritten, renamed and
// deleted, and what happens when stat or inotify_init fail (a failed read on
// the inotify descriptor is the daemon's fault tests' business). "Nothing
// happened" is proven by drain(), never by waiting. Log lines are read from
// syslog (recorded).
#include <csl/fs_events.hpp>
#include <csl/fs_reader.hpp>

#include <cdl/exception.hpp>

#include "support/catalogue_env.hpp"
#include "support/interpose.hpp"

#include <gtest/gtest.h>

#include <cstdio>

namespace {

using namespace faitra_test;

std::string summary(const catalogue_env& env, const std::string& name) {
  const auto e = env.record(name);
  if (!e) return "absent";
  return (e->key.is_null() ? "-" : *e->key) + " " + (e->start_ts.is_null() ? "-" : std::to_string(*e->start_ts)) +
         " " + std::to_string(e->file_size);
}
bool logged(const std::string& fragment) { return !syslog_lines(fragment).empty(); }

class Tracker : public ::testing::Test {
 protected:
  void SetUp() override { clear_records(); }
  void TearDown() override {
    for (call c : {call::stat, call::inotify_init}) fault_of(c).arm("", 0, 0);
  }
  temp_dir outside;  // on the same file system: renames into the watch work
};

TEST_F(Tracker, FollowsACaptureFromCreationThroughRewriteAndRenameToDeletion) {
  catalogue_env env({.log = recorded_log()});
  write_capture(env.path("a.pcap"), 1000, attributes(17));
  ASSERT_TRUE(wait_until([&] { return summary(env, "a.pcap") == "h17 17000000000 1000"; })) << summary(env, "a.pcap");
  // First a bare record from create and write, then the attributes with the second close.
  EXPECT_TRUE(logged("Created fs_entry: path: " + env.path("a.pcap") + ", key: null"));
  write_capture(env.path("a.pcap"), 3000, attributes(18, "again"));
  ASSERT_TRUE(wait_until([&] { return summary(env, "a.pcap") == "again 18000000000 3000"; }));
  // Moved in: a create, so status only; the attributes come with the next close.
  write_capture(outside.file("b.pcap"), 500, attributes(3));
  ASSERT_EQ(std::rename(outside.file("b.pcap").c_str(), env.path("b.pcap").c_str()), 0);
  ASSERT_TRUE(env.wait_cached("b.pcap"));
  EXPECT_EQ(summary(env, "b.pcap"), "- - 500");
  write_and_close(env.path("b.pcap"), 500);
  ASSERT_TRUE(wait_until([&] { return summary(env, "b.pcap") == "h3 3000000000 500"; }));
  for (const char* name : {"a.pcap", "b.pcap"}) ASSERT_EQ(::unlink(env.path(name).c_str()), 0);
  ASSERT_TRUE(env.wait_gone("a.pcap") && env.wait_gone("b.pcap"));
  csl::fs_cache::shared_guard lock(env.cache());
  EXPECT_TRUE(env.cache().key_cache().empty() && env.cache().start_ts_cache().empty());
}

TEST_F(Tracker, DirectoriesSubdirectoriesRejectedNamesAndEventsThatCannotBeAppliedChangeNothing) {
  catalogue_env env({.log = recorded_log(), .before_scan = [](const std::string& dir) {
                       write_capture(dir + "/a.pcap", 100, attributes(10, "old"));
                     }});
  ASSERT_EQ(::mkdir(env.path("made.pcap").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(outside.file("dir.pcap").c_str(), 0755), 0);
  ASSERT_EQ(std::rename(outside.file("dir.pcap").c_str(), env.path("dir.pcap").c_str()), 0);
  write_capture(env.path("made.pcap/inner.pcap"), 10, attributes(4));
  write_capture(env.path("notes.txt"), 10, attributes(5));
  // A close after the hash went: an update for a file without hash.
  ASSERT_EQ(::removexattr(env.path("a.pcap").c_str(), "user.pcap_hash"), 0);
  write_and_close(env.path("a.pcap"), 700);
  ASSERT_TRUE(env.drain());  // handled before the file is replaced: handlers read the path
  // A rename over the name: a create for a path already catalogued.
  write_capture(outside.file("a.pcap"), 900, attributes(40, "new"));
  ASSERT_EQ(std::rename(outside.file("a.pcap").c_str(), env.path("a.pcap").c_str()), 0);
  ASSERT_TRUE(env.drain());
  EXPECT_TRUE(logged("Failed to read the extended attributes of " + env.path("a.pcap") + "."));
  EXPECT_TRUE(logged("Failed to insert " + env.path("a.pcap") + " into the cache. The path already existed."));
  EXPECT_EQ(summary(env, "a.pcap"), "old 10000000000 100");
  EXPECT_EQ(env.cache().size(), 3u) << "a.pcap and two sentinels";
}

TEST_F(Tracker, WithoutMonitoringItOnlyScansAndAnnouncesCapturesWithoutAttributes) {
  struct announcements {
    std::mutex mutex;
    std::set<std::string> missing;
    void on(cdl::task_ptr<csl::fs_entry_missing_xattr_at_init>& t) {
      const std::lock_guard<std::mutex> lock(mutex);
      missing.insert(t->entry.path.substr(t->entry.path.rfind('/') + 1));
    }
  } seen;  // outlives the env, whose worker calls it
  env_options o{.monitor = false, .log = recorded_log()};
  o.before_scan = [](const std::string& dir) {
    write_and_close(dir + "/bare-236.pcap", 236);
    write_and_close(dir + "/bare-237.pcap", 237);
    write_capture(dir + "/keyed-small.pcap", 236, attributes(1));  // "empty", announced otherwise
  };
  o.on_channel = [&](cdl::task_channel& c) {
    // The announcements have no static name: a host subscribes by the identity their objects report.
    c.register_task_handler_as(csl::fs_entry_missing_xattr_at_init(csl::fs_entry()).type(), &announcements::on,
                               &seen, cdl::task_handler_order::normal, csl::FS_EVENT_VERSION);
  };
  catalogue_env env(o);
  EXPECT_FALSE(env.tracker().monitoring());
  EXPECT_EQ(env.created_handlers(), 0u);
  EXPECT_EQ(env.cache().size(), 3u);
  ASSERT_TRUE(wait_until([&] {
    const std::lock_guard<std::mutex> lock(seen.mutex);
    return seen.missing == std::set<std::string>{"bare-236.pcap", "bare-237.pcap"};
  }));
}

TEST_F(Tracker, AFailedStatOnAnEventLeavesTheCatalogueAloneAndTheScanRetriesTheEntry) {
  for (const bool scanned_first : {false, true}) {  // a created event, then an updated one
    SCOPED_TRACE(scanned_first ? "updated" : "created");
    catalogue_env env({.log = recorded_log(), .before_scan = [&](const std::string& dir) {
                         if (scanned_first) write_capture(dir + "/a.pcap", 100, attributes(1));
                       }});
    fault_of(call::stat).arm(env.path("a.pcap"), 1, ENOENT);
    write_and_close(env.path("a.pcap"), 700);
    ASSERT_TRUE(wait_for_syslog("Failed to read the attributes of " + env.path("a.pcap") + "."));
    ASSERT_TRUE(env.drain());
    EXPECT_EQ(summary(env, "a.pcap"), scanned_first ? "h1 1000000000 100" : "absent");
  }
  clear_records();
  for (const char* name : {"a.pcap", "b.pcap"}) write_and_close(outside.file(name), 10);
  csl::fs_reader reader(is_capture_name, 236, "user.pcap_hash", "user.pcap_start_ts", "user.pcap_end_ts",
                        "user.pcap_creation_ts", {}, recorded_log());
  csl::fs_cache cache;
  int reported = 0;
  fault_of(call::stat).arm(outside.file("a.pcap"), 2, ENOENT);
  reader.collect_files(outside.path(), cache, [&](csl::fs_entry&) { ++reported; }, [](csl::fs_entry&) {});
  EXPECT_EQ(syslog_lines("Failed to read stats on " + outside.file("a.pcap") + ".").size(), 2u);
  EXPECT_EQ(cache.size(), 2u);  // not skipped, and each reported once
  EXPECT_EQ(reported, 2);
}

TEST_F(Tracker, AFailedInotifyInitStillBuildsTheCatalogue) {
  fault_of(call::inotify_init).arm("", 1, EMFILE);
  catalogue_env env({.log = recorded_log(), .before_scan = [](const std::string& dir) {
                       write_capture(dir + "/a.pcap", 100, attributes(1));
                     }});
  EXPECT_TRUE(logged("Failed to start monitoring: fd < 0, error: " + std::string(std::strerror(EMFILE))));
  EXPECT_FALSE(env.tracker().monitoring());
  EXPECT_EQ(env.cache().size(), 1u);
}

}  // namespace
