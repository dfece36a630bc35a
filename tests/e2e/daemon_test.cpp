// The daemon as a host, against the real binary: clean exits on signals
// (also while the cleaner pauses or a command runs), refused options,
// captures with malformed attributes at start, and drift that inotify cannot
// report, repaired by the reconcile.
#include "daemon_harness.hpp"

#include <ctime>

namespace faitra_e2e {
namespace {

constexpr unsigned long MiB = 1UL << 20;

TEST(DaemonLifecycle, SigtermAndSigintStopCleanlyEvenWhileTheCleanerPauses) {
  for (const auto& [sig, name] : {std::pair{SIGTERM, "SIGTERM"}, std::pair{SIGINT, "SIGINT"}}) {
    FAITRA_E2E_TMPFS(fs, 16 * MiB);
    write_capture(fs.file("a.pcap"), 4096, attributes(1));
    // Automatic cleanup on: its first check starts at once with its real
    // 15-second pause, which shutdown has to wait for.
    daemon_process d({"--root", fs.path()});
    ASSERT_TRUE(d.wait_ready());
    EXPECT_EQ(d.stop(sig), 0) << name;
    const std::string received = "Received " + std::string(name) + "; stopping";
    for (const std::string& line :
         {received, std::string("Waiting for the cleaner: a usage check is in its 15-second pause; no cleanup is running"),
          std::string("Stopped")}) {
      EXPECT_TRUE(d.log_has(line)) << line;
    }
    EXPECT_TRUE(exists(fs.file("a.pcap")));
    EXPECT_FALSE(exists(d.socket_path())) << "the socket file is removed";
  }
}

TEST(DaemonLifecycle, ShutdownKillsARunningOnDemandCommandAndOptionsThatCannotWorkAreRefused) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  faitra_test::temp_dir scratch("faitra-e2e-scratch");
  write_text(scratch.file("slow.sh"), "#!/bin/sh\ntouch " + scratch.file("started") + "\nsleep 600\n", 0755);
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--metadata-cleanup-cmd", scratch.file("slow.sh")});
  ASSERT_TRUE(d.wait_ready());
  ASSERT_EQ(d.request("POST", "/v1/cleanup/metadata", R"({"start": 1, "end": 2})").status, 202);
  ASSERT_TRUE(wait_until([&] { return exists(scratch.file("started")); }));
  EXPECT_EQ(d.stop(SIGTERM), 0);
  EXPECT_TRUE(d.log_has("could not cleanup all or some metadata in range 1-2: killed"));

  const std::string root = fs.path();
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"--root", root, "--trigger", "0.5", "--stop", "0.6"}, {"--root", root, "--stop", "0"},
           {"--root", root, "--trigger", "1.5"}, {"--root", root, "--watch", scratch.path()},
           {"--root", root, "--log-level", "chatty"}, {"--root", fs.file("missing")},
           {"--root", root, "--trigger", "0.9", "--hard-limit", "0.9"}, {"--root", root, "--hard-limit", "most"},
           {"--root", root, "--max-age", "7x"}, {"--root", root, "--hold-dir", root}}) {
    const int code = daemon_process(args).wait_exit();
    EXPECT_TRUE(code > 0) << args.back() << ": " << code;  // exited by itself, with an error
  }
}

// Over TCP, on a port the system picks.
TEST(DaemonScan, CataloguesCapturesWithAMalformedAttributeWithoutItAndReportsEachOnceByName) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  const std::vector<std::string> broken = {"not-a-number.pcap", "too-large.pcap", "negative.pcap"};
  const char* values[] = {"abc", "99999999999999999999", "-5"};  // as user.pcap_start_ts
  for (const char* name : {"a.pcap", "z.pcap"}) write_capture(fs.file(name), 4096, attributes(1));
  for (size_t i = 0; i < broken.size(); ++i) {
    write_capture(fs.file(broken[i]), 4096, attributes(2));
    faitra_test::set_xattr(fs.file(broken[i]), "user.pcap_start_ts", values[i]);
  }
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup"}, daemon_process::transport::tcp);
  ASSERT_TRUE(d.wait_ready());
  auto catalogue = d.catalogue();
  EXPECT_EQ(catalogue.size(), 5U);
  const reply status = d.request("GET", "/v1/status");
  ASSERT_EQ(status.json["scan_problems"].Size(), broken.size()) << status.body;
  for (const auto& problem : status.json["scan_problems"].GetArray()) {
    EXPECT_NE(std::string(problem["reason"].GetString()).find("malformed attribute user.pcap_start_ts"),
              std::string::npos);
  }
  const std::string log = d.log();
  for (const std::string& name : broken) {
    EXPECT_TRUE(catalogue[fs.file(name)].starts_with("key=h2 creation_ts=2 start_ts=null ")) << name;
    EXPECT_EQ(log.find("skipped " + name), log.rfind("skipped " + name)) << "reported once: " << name;
    EXPECT_NE(log.find("skipped " + name), std::string::npos) << name;
  }
  EXPECT_EQ(d.metric("faitra_scan_problems"), 3);
  write_capture(fs.file("new.pcap"), 4096, attributes(4));  // the rest is followed as usual
  EXPECT_TRUE(wait_until([&] { return d.catalogue().size() == 6; }));
  EXPECT_NE(run({"ls", "--listen", d.listen()}).out.find(fs.file("new.pcap")), std::string::npos);
  EXPECT_EQ(d.stop(), 0);
}

class DaemonReconcile : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_fs.mounted()) GTEST_SKIP() << _fs.reason();
    // The stage directory is on the same file system (renames and links
    // work) but not watched.
    for (const char* dir : {"caps", "stage"}) ASSERT_EQ(::mkdir(_fs.file(dir).c_str(), 0755), 0);
    for (unsigned long n : {1UL, 2UL, 3UL}) write_capture(caps(n), 4096, attributes(n));
  }
  std::string caps(unsigned long n) const { return _fs.file("caps/" + std::to_string(n) + ".pcap"); }
  std::string stage(const std::string& name) const { return _fs.file("stage/" + name); }
  std::unique_ptr<daemon_process> start(const std::string& interval) {
    auto d = std::make_unique<daemon_process>(std::vector<std::string>{
        "--root", _fs.path(), "--watch", _fs.file("caps"), "--no-auto-cleanup", "--reconcile-interval", interval});
    EXPECT_TRUE(d->wait_ready());
    // The reconcile run at start is over before the test makes drift.
    EXPECT_TRUE(wait_until([&] { return d->metric("faitra_reconcile_runs_total") >= 1; }));
    return d;
  }
  // A capture staged outside the watch with this modification time.
  std::string staged(const std::string& name, unsigned long n, const std::string& hash, time_t mtime) {
    write_capture(stage(name), 8192, attributes(n, hash));
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(::utimensat(AT_FDCWD, stage(name).c_str(), times, 0), 0);
    return stage(name);
  }
  // A capture written with its attributes and this modification time, its
  // descriptor left open.
  int unclosed(const std::string& path, unsigned long n, time_t mtime) {
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    const std::string bytes(8192, 'p'), hash = "h" + std::to_string(n);
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), 8192);
    EXPECT_EQ(::fsetxattr(fd, "user.pcap_hash", hash.data(), hash.size(), 0), 0);
    const timespec times[2] = {{mtime, 0}, {mtime, 0}};
    EXPECT_EQ(::futimens(fd, times), 0);
    return fd;
  }
  faitra_test::tmpfs_mount _fs{16 * MiB};
};

TEST_F(DaemonReconcile, RepairsWhatInotifyCouldNotReportOnceAndTheRecordsAreLiveAgain) {
  auto d = start("0");
  const auto before = d->catalogue();
  const time_t now = std::time(nullptr);
  // Updated behind the tracker's back: a rename over a catalogued name is a
  // create, refused because the name exists.
  ASSERT_EQ(::rename(staged("1.tmp", 500, "rewritten", now - 3600).c_str(), caps(1).c_str()), 0);
  ASSERT_TRUE(d->wait_log("Failed to insert " + caps(1) + " into the cache. The path already existed."));
  // Removed: moved out of the watched directory, a create that fails its stat.
  ASSERT_EQ(::rename(caps(3).c_str(), stage("3.moved").c_str()), 0);
  ASSERT_TRUE(d->wait_log("Failed to read the attributes of " + caps(3)));
  EXPECT_EQ(d->catalogue(), before) << "stale until the reconcile";
  // Added: a capture whose writer has not closed it makes a create and no
  // close, so the tracker waits. One is old enough to add, one looks still
  // written (deferred).
  const int open4 = unclosed(caps(4), 4, now - 3600), open5 = unclosed(caps(5), 5, now + 3600);

  auto reconcile = [&] {  // added removed updated deferred
    const reply r = d->request("POST", "/v1/reconcile", "");
    std::string counts;
    for (const char* kind : {"added", "removed", "updated", "deferred"}) {
      counts += std::to_string(r.json[kind].GetUint64()) + " ";
    }
    return counts;
  };
  EXPECT_EQ(reconcile(), "1 1 1 1 ");
  const auto after = d->catalogue();
  EXPECT_EQ(after.at(caps(1)), "key=rewritten creation_ts=500 start_ts=500000000000 end_ts=500500000000 "
                               "file_size=8192 pending_deletion=false ");
  EXPECT_EQ(after.at(caps(2)), before.at(caps(2)));
  EXPECT_TRUE(after.at(caps(4)).starts_with("key=h4 "));
  EXPECT_EQ(after.count(caps(3)) + after.count(caps(5)), 0U);
  for (const char* kind : {"added", "removed", "updated"}) {
    EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"" + std::string(kind) + "\"}"), 1) << kind;
  }
  EXPECT_EQ(reconcile(), "0 0 0 1 ") << "repairs are made once";
  ASSERT_EQ(::unlink(caps(4).c_str()), 0);  // the tracker follows a repaired record
  EXPECT_TRUE(wait_until([&] { return d->catalogue().count(caps(4)) == 0; }));
  EXPECT_EQ(d->stop(), 0);
  ::close(open4);
  ::close(open5);
}

TEST_F(DaemonReconcile, RunsByItselfEveryInterval) {
  auto d = start("1");
  ASSERT_EQ(::rename(caps(2).c_str(), stage("2.moved").c_str()), 0);
  EXPECT_TRUE(wait_until([&] { return d->catalogue().count(caps(2)) == 0; }, 60s));
  EXPECT_EQ(d->metric("faitra_drift_repaired_total{kind=\"removed\"}"), 1);
  EXPECT_EQ(d->stop(), 0);
}

}  // namespace
}  // namespace faitra_e2e
