// Retention beyond the automatic cleanup, against the real binary on a
// tmpfs: the age limit set at start, the hard ceiling against a writer that
// fills the disk, and evidence holds that every cleanup and a restart leave
// in place.
#include "daemon_harness.hpp"


#include <ctime>
#include <functional>

namespace {

// A client subcommand: its exit status and standard output.
std::pair<int, std::string> run_client(const std::vector<std::string>& args) {
  faitra_e2e::run_result r = faitra_e2e::run(args);
  return {r.status, std::move(r.out)};
}

using faitra_e2e::daemon_process;
using faitra_test::write_capture;

constexpr unsigned long MiB = 1024 * 1024;

std::string name(unsigned long n) { return "cap" + std::to_string(n) + ".pcap"; }

TEST(RetentionTest, MaxAgeDeletesWhatIsOlderAtStart) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  const auto now = static_cast<unsigned long>(std::time(nullptr));
  for (const unsigned long n : {1000UL, 1001UL, now - 60, now}) write_capture(fs.file(name(n)), 4096, faitra_e2e::attributes(n));
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--max-age", "1h"});
  ASSERT_TRUE(d.wait_ready());
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.catalogue().size() == 2; }));
  EXPECT_FALSE(faitra_e2e::exists(fs.file(name(1000))));
  EXPECT_TRUE(faitra_e2e::exists(fs.file(name(now - 60))));
  EXPECT_EQ(d.status_number({"max_age", "seconds"}), 3600);
  EXPECT_EQ(d.status_number({"max_age", "deleted"}), 2);
  EXPECT_EQ(d.metric("faitra_max_age_deleted_total"), 2);
  EXPECT_TRUE(d.log_has("Max age 1h: deleting 2 capture(s)"));
  EXPECT_EQ(d.stop(), 0);
}

TEST(RetentionTest, HardLimitKeepsAFillingDiskUnderItsCeilingOldestFirst) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--hard-limit", "0.75"});
  ASSERT_TRUE(d.wait_ready());
  constexpr unsigned long COUNT = 40;  // two and a half times the disk
  for (unsigned long n = 1; n <= COUNT; ++n) {
    write_capture(fs.file(name(n)), MiB, faitra_e2e::attributes(n));  // fails the test on ENOSPC
    ASSERT_TRUE(faitra_test::wait_until([&] { return faitra_e2e::usage(fs.path()) < 0.75; })) << "after capture " << n;
  }
  // What is left is the newest captures, without a gap: the oldest went
  // first. (The guard may still be deleting ahead of the writer's pace.)
  unsigned long first_left = COUNT + 1;
  EXPECT_TRUE(faitra_test::wait_until([&] {
    first_left = COUNT + 1;
    for (unsigned long n = COUNT; n >= 1 && faitra_e2e::exists(fs.file(name(n))); --n) first_left = n;
    return d.metric("faitra_hard_limit_deleted_total") == static_cast<long>(first_left - 1);
  }));
  for (unsigned long n = 1; n < first_left; ++n) EXPECT_FALSE(faitra_e2e::exists(fs.file(name(n)))) << n;
  EXPECT_GT(first_left, COUNT / 2);
  EXPECT_GE(d.status_number({"hard_limit", "episodes"}), 1);
  EXPECT_TRUE(d.log_has("reached the hard limit 75.0%; deleting the oldest captures now"));
  EXPECT_EQ(d.stop(), 0);
}

// A capture held by path, then each kind of cleanup: the held bytes stay.
struct cleanup_case {
  const char* name;
  std::vector<std::string> args;
  std::function<void(daemon_process&, const faitra_test::tmpfs_mount&)> act;
};

TEST(RetentionTest, AHeldCaptureOutlivesEveryCleanupAndARestart) {
  const std::vector<cleanup_case> cases = {
      {"automatic", {"--trigger", "0.5", "--stop", "0.05", "--hard-limit", "off"},
       [](daemon_process&, const faitra_test::tmpfs_mount& fs) {
         for (unsigned long n = 10; n < 16; ++n) write_capture(fs.file(name(n)), MiB, faitra_e2e::attributes(n));
       }},
      {"age", {"--no-auto-cleanup"},
       [](daemon_process& d, const faitra_test::tmpfs_mount&) {
         EXPECT_EQ(d.request("POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": "now"})").status, 202);
       }},
      {"hard limit", {"--no-auto-cleanup", "--hard-limit", "0.5"},
       [](daemon_process&, const faitra_test::tmpfs_mount& fs) {
         for (unsigned long n = 10; n < 16; ++n) write_capture(fs.file(name(n)), MiB, faitra_e2e::attributes(n));
       }},
  };
  for (const cleanup_case& c : cases) {
    SCOPED_TRACE(c.name);
    FAITRA_E2E_TMPFS(fs, 16 * MiB);
    for (unsigned long n = 1; n <= 4; ++n) write_capture(fs.file(name(n)), MiB, faitra_e2e::attributes(n));
    const std::string held = fs.file(".faitra-holds/1/" + name(1));
    std::vector<std::string> args = {"--root", fs.path(), "--reconcile-interval", "0"};
    args.insert(args.end(), c.args.begin(), c.args.end());
    const auto start = [&] {
      ::setenv("FAITRA_INSTANT_SLEEP", "1", 1);  // the automatic cleanup's pauses
      auto started = std::make_unique<daemon_process>(args, daemon_process::transport::unix_socket, FAITRA_FAULTY_BINARY);
      ::unsetenv("FAITRA_INSTANT_SLEEP");
      return started;
    };
    auto d = start();
    ASSERT_TRUE(d->wait_ready());
    const auto made = d->request("POST", "/v1/holds", R"({"paths": [")" + fs.file(name(1)) + R"("], "reason": "case 7"})");
    ASSERT_EQ(made.status, 201) << made.body;
    EXPECT_STREQ(made.json["hold"]["captures"][0]["held_path"].GetString(), held.c_str());

    c.act(*d, fs);
    ASSERT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(fs.file(name(2))); })) << d->log();
    struct stat status {};
    ASSERT_EQ(::stat(held.c_str(), &status), 0);
    EXPECT_EQ(status.st_size, static_cast<off_t>(MiB));
    EXPECT_EQ(d->status_number({"holds", "bytes"}), static_cast<long>(MiB));

    EXPECT_EQ(d->stop(), 0);
    d = start();
    ASSERT_TRUE(d->wait_ready());
    const auto listed = d->request("GET", "/v1/holds");
    ASSERT_EQ(listed.json["holds"].Size(), 1U) << listed.body;
    EXPECT_STREQ(listed.json["holds"][0]["reason"].GetString(), "case 7");
    EXPECT_STREQ(listed.json["holds"][0]["captures"][0]["held_path"].GetString(), held.c_str());
    EXPECT_EQ(d->request("DELETE", "/v1/holds?id=1").status, 200);
    EXPECT_FALSE(faitra_e2e::exists(held));
    EXPECT_EQ(d->request("DELETE", "/v1/holds?id=1").status, 404);
    EXPECT_EQ(d->stop(), 0);
  }
}

TEST(RetentionTest, HoldsByWindowOrPathExpireAndAreManagedFromTheCommandLine) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  for (unsigned long n = 1; n <= 3; ++n) write_capture(fs.file(name(n)), 4096, faitra_e2e::attributes(n));
  const std::string odd = "odd\xff.pcap";  // a name that is not UTF-8
  write_capture(fs.file(odd), 4096, faitra_e2e::attributes(2, "hodd"));
  auto d = std::make_unique<daemon_process>(std::vector<std::string>{"--root", fs.path(), "--no-auto-cleanup"});
  ASSERT_TRUE(d->wait_ready());
  // Packets of capture n span [n s, n.5 s]: [1.6 s, 2.2 s] overlaps capture 2 and the odd one.
  auto [code, out] = run_client(
      {"hold", "add", "--listen", d->listen(), "--start", "1600000000", "--end", "2200000000", "--reason", "window"});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("hold 1: 2 capture(s)"), std::string::npos) << out;
  std::tie(code, out) = run_client({"hold", "ls", "--listen", d->listen(), "1"});
  EXPECT_NE(out.find(fs.file(name(2))), std::string::npos) << out;
  EXPECT_NE(out.find(fs.file(odd)), std::string::npos) << out;
  const auto bad = faitra_e2e::run({"hold", "add", "--listen", d->listen(), fs.file("none.pcap"), "--reason", "x"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_NE(bad.err.find("no capture is catalogued"), std::string::npos) << bad.err;

  EXPECT_EQ(d->stop(), 0);
  d = std::make_unique<daemon_process>(std::vector<std::string>{"--root", fs.path(), "--no-auto-cleanup"});
  ASSERT_TRUE(d->wait_ready());
  const auto listed = d->request("GET", "/v1/holds");
  ASSERT_EQ(listed.json["holds"].Size(), 1U) << listed.body;
  EXPECT_EQ(listed.json["holds"][0]["captures"].Size(), 2U) << listed.body;
  EXPECT_TRUE(faitra_e2e::exists(fs.file(".faitra-holds/1/" + odd)));

  // Expired holds are released, and never listed.
  std::tie(code, out) = run_client(
      {"hold", "add", "--listen", d->listen(), fs.file(name(3)), "--reason", "brief", "--expires", "+2s"});
  EXPECT_EQ(code, 0) << out;
  EXPECT_TRUE(faitra_test::wait_until(
      [&] { return d->request("GET", "/v1/holds").json["holds"].Size() == 1; }, std::chrono::seconds(30)));
  EXPECT_FALSE(faitra_e2e::exists(fs.file(".faitra-holds/2/" + name(3))));
  EXPECT_EQ(run_client({"hold", "rm", "--listen", d->listen(), "1"}).first, 0);
  EXPECT_FALSE(faitra_e2e::exists(fs.file(".faitra-holds/1/" + odd)));
  EXPECT_TRUE(faitra_e2e::exists(fs.file(odd)));
  EXPECT_EQ(d->stop(), 0);
}

}  // namespace
