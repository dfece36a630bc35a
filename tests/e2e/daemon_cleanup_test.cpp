// The automatic cleanup driven by real disk usage: a 4 MiB tmpfs filled past
// the trigger fraction loses its oldest captures until usage is below the
// stop fraction. The cleaner's two 15-second pauses are real, so this one
// test takes about half a minute.
#include "daemon_harness.hpp"

namespace {

using faitra_e2e::daemon_process;
using namespace std::chrono_literals;

constexpr unsigned long KiB = 1024;
constexpr unsigned long MiB = 1024 * KiB;

TEST(DaemonCleanupTest, UsageAboveTheTriggerDeletesTheOldestCaptures) {
  FAITRA_E2E_TMPFS(fs, 4 * MiB);
  faitra_test::temp_dir scratch("faitra-e2e-scratch");
  const std::string ranges = scratch.file("ranges");
  const std::string script = scratch.file("meta.sh");
  faitra_e2e::write_text(script, "#!/bin/sh\necho \"$1 $2\" >> " + ranges + "\n", 0755);

  daemon_process d({"--root", fs.path(), "--trigger", "0.5", "--stop", "0.3", "--metadata-cleanup-cmd", script});
  ASSERT_TRUE(d.wait_ready());

  // Ten captures of 256 KiB: 2.5 MiB of 4 MiB, 62.5 %. Created out of order
  // on the capture clock, so that "oldest" cannot mean "written first".
  const unsigned long order[] = {1005, 1002, 1009, 1000, 1007, 1001, 1008, 1003, 1006, 1004};
  for (const unsigned long n : order) {
    faitra_test::write_capture(fs.file("c" + std::to_string(n) + ".pcap"), 256 * KiB, faitra_e2e::attributes(n));
  }
  auto exists = [&](unsigned long n) { return faitra_e2e::exists(fs.file("c" + std::to_string(n) + ".pcap")); };

  // Below 30 % of 1024 pages means at most 307 pages: six of the ten files
  // (64 pages each) go, the oldest by creation time.
  ASSERT_TRUE(faitra_test::wait_until([&] { return !exists(1005); }, 120s)) << d.log();
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.catalogue().size() == 4; }, 60s));
  for (unsigned long n = 1000; n <= 1005; ++n) EXPECT_FALSE(exists(n)) << n;
  for (unsigned long n = 1006; n <= 1009; ++n) EXPECT_TRUE(exists(n)) << n;
  for (unsigned long n = 1006; n <= 1009; ++n) {
    EXPECT_EQ(d.catalogue().count(fs.file("c" + std::to_string(n) + ".pcap")), 1U) << n;
  }

  // The metadata of the deleted range was cleaned first: from the first
  // packet of the oldest deleted capture to that of the oldest kept one.
  EXPECT_EQ(faitra_e2e::read_text(ranges), "1000000000000 1006000000000\n");
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.metric("faitra_cleanup_runs_total") == 1; }, 60s));
  EXPECT_TRUE(faitra_test::wait_until(
      [&] { return d.metric("faitra_captures_deleted_total{reason=\"cleanup\"}") == 6; }, 60s));
  EXPECT_EQ(d.metric("faitra_captures_deleted_total{reason=\"request\"}"), 0);
  EXPECT_TRUE(d.log_has("Filesystem cleanup has started")) << d.log();

  EXPECT_EQ(d.stop(SIGTERM, 120s), 0);
}

}  // namespace
