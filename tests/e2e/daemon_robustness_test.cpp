// The daemon as a robust host: captures with malformed attributes at start,
// a file vanishing during the scan, and catalogue drift that inotify cannot
// report, repaired by the reconcile.
#include "daemon_harness.hpp"

#include <faitra/host/capture_filter.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <ctime>

namespace {

using faitra_e2e::daemon_process;
using faitra_e2e::reply;
using faitra_test::write_capture;
using namespace std::chrono_literals;

constexpr unsigned long MiB = 1024 * 1024;

TEST(DaemonMalformedAttributeTest, CataloguesEachWithoutTheBadAttributeAndReportsItOnce) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  // name -> value of user.pcap_start_ts, and part of the reported reason.
  const std::map<std::string, std::pair<const char*, const char*>> broken = {
      {"not-a-number.pcap", {"abc", "malformed attribute user.pcap_start_ts"}},
      {"too-large.pcap", {"99999999999999999999", "malformed attribute user.pcap_start_ts"}},
      {"negative.pcap", {"-5", "malformed attribute user.pcap_start_ts"}},
  };
  write_capture(fs.file("a.pcap"), 4096, faitra_e2e::attributes(1));
  for (const auto& [name, value] : broken) {
    write_capture(fs.file(name), 4096, faitra_e2e::attributes(2));
    faitra_test::set_xattr(fs.file(name), "user.pcap_start_ts", value.first);
  }
  write_capture(fs.file("z.pcap"), 4096, faitra_e2e::attributes(3));

  daemon_process d({"--root", fs.path(), "--no-auto-cleanup"});
  ASSERT_TRUE(d.wait_ready());
  auto catalogue = d.catalogue();
  EXPECT_EQ(catalogue.size(), 5U);
  EXPECT_EQ(catalogue.count(fs.file("a.pcap")), 1U);
  EXPECT_EQ(catalogue.count(fs.file("z.pcap")), 1U);
  for (const auto& [name, value] : broken) {
    EXPECT_EQ(catalogue[fs.file(name)].substr(0, 37), "key=h2 creation_ts=2 start_ts=null en") << name;
  }

  const reply status = d.request("GET", "/v1/status");
  ASSERT_EQ(status.status, 200);
  const auto& problems = status.json["scan_problems"];
  ASSERT_EQ(problems.Size(), broken.size()) << status.body;
  for (const auto& problem : problems.GetArray()) {
    const auto expected = broken.find(problem["name"].GetString());
    ASSERT_NE(expected, broken.end()) << status.body;
    EXPECT_NE(std::string(problem["reason"].GetString()).find(expected->second.second), std::string::npos)
        << status.body;
  }
  for (const auto& [name, value] : broken) {
    const std::string log = d.log();
    const size_t first = log.find("skipped " + name);
    EXPECT_TRUE(first != std::string::npos && log.find("skipped " + name, first + 1) == std::string::npos) << log;
  }
  EXPECT_EQ(d.metric("faitra_scan_problems"), 3);

  // The rest is served and followed as usual.
  write_capture(fs.file("new.pcap"), 4096, faitra_e2e::attributes(4));
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.catalogue().size() == 6; }));
  EXPECT_EQ(d.stop(), 0);
}

// The scan examines an entry again, without advancing, while its stat
// fails; the filter must end that loop for a file that is gone.
TEST(CaptureFilterTest, EndsTheScanRetryOfAVanishedFile) {
  faitra_test::temp_dir dir("faitra-e2e-filter");
  faitra_host::capture_filter filter({".pcap"}, {dir.path()});
  EXPECT_TRUE(filter("gone.pcap"));   // listed
  EXPECT_FALSE(filter("gone.pcap"));  // offered again at once: its stat failed and it is gone
  ASSERT_EQ(filter.problems().size(), 1U);
  EXPECT_EQ(filter.problems()[0].name, "gone.pcap");

  // A file that still exists is retried, but not for ever.
  faitra_test::write_and_close(dir.file("stuck.pcap"), 1);
  unsigned accepted = 0;
  while (filter("stuck.pcap") && accepted <= faitra_host::capture_filter::MAX_STAT_RETRIES + 1) ++accepted;
  EXPECT_LE(accepted, faitra_host::capture_filter::MAX_STAT_RETRIES);
  EXPECT_GT(accepted, 1U);

  // Later scans and the monitor (full paths) still see other names.
  EXPECT_TRUE(filter("other.pcap"));
  EXPECT_TRUE(filter(dir.file("gone.pcap")));
  EXPECT_FALSE(filter("notes.txt"));
}

class DaemonReconcileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_fs.mounted()) GTEST_SKIP() << _fs.reason();
    ASSERT_EQ(::mkdir(caps("").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(_fs.file("stage").c_str(), 0755), 0);
    for (const char* name : {"a", "b", "c"}) write_capture(caps(std::string(name) + ".pcap"), 4096, attrs(name));
  }

  std::string caps(const std::string& name) const { return _fs.file("caps/" + name); }
  std::string stage(const std::string& name) const { return _fs.file("stage/" + name); }
  static faitra_test::capture_attributes attrs(const std::string& name) {
    return faitra_e2e::attributes(static_cast<unsigned long>(name[0]));
  }

  static void set_mtime(const std::string& path, long seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
  }

  std::unique_ptr<daemon_process> start(const std::string& interval, const std::string& binary = FAITRA_BINARY) {
    // Root and watched directory differ: the stage directory is on the same
    // file system (so renames and links work) but not watched.
    auto d = std::make_unique<daemon_process>(
        std::vector<std::string>{"--root", _fs.path(), "--watch", caps(""), "--no-auto-cleanup",
                                 "--reconcile-interval", interval},
        daemon_process::transport::unix_socket, binary);
    EXPECT_TRUE(d->wait_ready());
    // The reconcile run at start is over before the test makes drift.
    EXPECT_TRUE(faitra_test::wait_until([&] { return d->status_number({"reconcile", "runs"}) >= 1; }));
    return d;
  }

  faitra_test::tmpfs_mount _fs{16 * MiB};
};

TEST_F(DaemonReconcileTest, RepairsWhatInotifyCouldNotReport) {
  auto d = start("0");
  const auto before = d->catalogue();
  ASSERT_EQ(before.size(), 3U);

  // Updated behind the tracker's back: a rename over a catalogued name
  // reports only a create, which the tracker refuses (the name exists).
  write_capture(stage("a.tmp"), 8192, faitra_e2e::attributes(500, "rewritten"));
  ASSERT_EQ(::rename(stage("a.tmp").c_str(), caps("a.pcap").c_str()), 0);
  ASSERT_TRUE(d->wait_log("Failed to insert " + caps("a.pcap") + " into the cache. The path already existed."));
  EXPECT_EQ(d->catalogue().at(caps("a.pcap")), before.at(caps("a.pcap")));  // stale

  // Removed behind its back: moved out of the watched directory, which
  // inotify reports as a create (that fails its stat).
  ASSERT_EQ(::rename(caps("c.pcap").c_str(), stage("c.moved").c_str()), 0);
  ASSERT_TRUE(d->wait_log("Failed to read the attributes of " + caps("c.pcap")));
  EXPECT_EQ(d->catalogue().count(caps("c.pcap")), 1U);  // stale

  // Added behind its back: a hard link yields a create with no close, which
  // the tracker never acts on. One link is old enough to be added; one looks
  // as if it were still being written and is left for later.
  write_capture(stage("d.tmp"), 4096, attrs("d"));
  set_mtime(stage("d.tmp"), std::time(nullptr) - 3600);
  ASSERT_EQ(::link(stage("d.tmp").c_str(), caps("d.pcap").c_str()), 0);
  write_capture(stage("e.tmp"), 4096, attrs("e"));
  set_mtime(stage("e.tmp"), std::time(nullptr) + 3600);
  ASSERT_EQ(::link(stage("e.tmp").c_str(), caps("e.pcap").c_str()), 0);

  const reply r = d->request("POST", "/v1/reconcile", "");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(r.json["added"].GetUint64(), 1U) << r.body;
  EXPECT_EQ(r.json["removed"].GetUint64(), 1U) << r.body;
  EXPECT_EQ(r.json["updated"].GetUint64(), 1U) << r.body;
  EXPECT_EQ(r.json["deferred"].GetUint64(), 1U) << r.body;

  const auto after = d->catalogue();
  EXPECT_EQ(after.count(caps("c.pcap")), 0U);
  EXPECT_EQ(after.count(caps("e.pcap")), 0U);
  ASSERT_EQ(after.count(caps("d.pcap")), 1U);
  EXPECT_NE(after.at(caps("d.pcap")).find("key=h100 "), std::string::npos) << after.at(caps("d.pcap"));
  const reply a = d->request("GET", "/v1/captures/lookup?path=" + caps("a.pcap"));
  ASSERT_EQ(a.status, 200);
  EXPECT_STREQ(a.json["key"].GetString(), "rewritten");
  EXPECT_EQ(a.json["start_ts"].GetUint64(), 500000000000U);
  EXPECT_EQ(a.json["creation_ts"].GetUint64(), 500U);
  EXPECT_EQ(a.json["file_size"].GetUint64(), 8192U);
  EXPECT_EQ(after.at(caps("b.pcap")), before.at(caps("b.pcap")));

  EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"added\"}"), 1);
  EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"removed\"}"), 1);
  EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"updated\"}"), 1);
  EXPECT_EQ(d->status_number({"reconcile", "updated"}), 1);
  EXPECT_EQ(d->status_number({"reconcile", "last", "added"}), 1);

  // Repairs are made once: the next run finds only the file still being
  // written.
  const reply again = d->request("POST", "/v1/reconcile", "");
  ASSERT_EQ(again.status, 200);
  EXPECT_EQ(again.json["added"].GetUint64() + again.json["removed"].GetUint64() + again.json["updated"].GetUint64(),
            0U)
      << again.body;
  EXPECT_EQ(again.json["deferred"].GetUint64(), 1U);

  // The repaired records are live again: the tracker follows them.
  ASSERT_EQ(::unlink(caps("d.pcap").c_str()), 0);
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().count(caps("d.pcap")) == 0; }));
  EXPECT_EQ(d->stop(), 0);
}

// A record marked for deletion whose file could not be removed stays
// marked when the reconcile updates it, so it is never offered for
// deletion twice.
TEST_F(DaemonReconcileTest, AnUpdateKeepsTheDeletionMarker) {
  // The delete thread cannot remove it: the command with injectable faults
  // fails its unlink.
  const std::string stuck = caps("stuck.pcap");
  faitra_test::write_and_close(stuck, 10);
  faitra_test::set_xattr(stuck, "user.pcap_hash", "before");
  ::setenv("FAITRA_FAULT_UNLINK", "stuck.pcap:1000", 1);
  auto d = start("0", FAITRA_FAULTY_BINARY);
  ::unsetenv("FAITRA_FAULT_UNLINK");
  ASSERT_EQ(d->catalogue().count(stuck), 1U);
  ASSERT_EQ(d->request("DELETE", "/v1/captures?path=" + stuck).status, 200);
  ASSERT_TRUE(d->wait_log("Failed to delete capture file: " + stuck));

  faitra_test::set_xattr(stuck, "user.pcap_hash", "after");  // no event reports this
  const reply r = d->request("POST", "/v1/reconcile", "");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(r.json["updated"].GetUint64(), 1U) << r.body;
  const reply record = d->request("GET", "/v1/captures/lookup?path=" + stuck);
  EXPECT_STREQ(record.json["key"].GetString(), "after");
  EXPECT_TRUE(record.json["pending_deletion"].GetBool()) << record.body;
  // Still marked: a second request does not mark (or queue) it again.
  const reply again = d->request("DELETE", "/v1/captures?path=" + stuck);
  EXPECT_EQ(again.status, 200);
  EXPECT_FALSE(again.json["marked"].GetBool()) << again.body;
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonReconcileTest, RunsByItselfEveryInterval) {
  auto d = start("1");
  ASSERT_EQ(::rename(caps("b.pcap").c_str(), stage("b.moved").c_str()), 0);
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().count(caps("b.pcap")) == 0; }, 60s));
  EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"removed\"}"), 1);
  EXPECT_EQ(d->stop(), 0);
}

}  // namespace
