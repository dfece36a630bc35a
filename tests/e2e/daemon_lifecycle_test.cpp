// Starting and stopping the daemon: clean exits on SIGTERM and SIGINT (also
// while the cleaner pauses and while an on-demand command runs), refused
// options, TCP listening.
#include "daemon_harness.hpp"

namespace {

using faitra_e2e::daemon_process;
using namespace std::chrono_literals;

constexpr unsigned long MiB = 1024 * 1024;

TEST(DaemonLifecycleTest, SigtermAndSigintStopCleanlyEvenWhileTheCleanerPauses) {
  for (const auto& [sig, name] : {std::pair{SIGTERM, "SIGTERM"}, std::pair{SIGINT, "SIGINT"}}) {
    SCOPED_TRACE(name);
    FAITRA_E2E_TMPFS(fs, 16 * MiB);
    faitra_test::write_capture(fs.file("a.pcap"), 4096, faitra_e2e::attributes(1));
    // Automatic cleanup on: the cleaner's first check starts at once with its
    // 15-second pause, which shutdown has to wait for.
    daemon_process d({"--root", fs.path()});
    ASSERT_TRUE(d.wait_ready());
    EXPECT_EQ(d.stop(sig), 0);
    EXPECT_TRUE(d.log_has(std::string("Received ") + name + "; stopping"));
    EXPECT_TRUE(d.log_has("Waiting for the cleaner: a usage check is in its 15-second pause; no cleanup is running"))
        << d.log();
    EXPECT_TRUE(d.log_has("Stopped"));
    EXPECT_TRUE(faitra_e2e::exists(fs.file("a.pcap")));
    EXPECT_FALSE(faitra_e2e::exists(d.scratch("api.sock")));  // the socket file is removed
  }
}

TEST(DaemonLifecycleTest, ShutdownDoesNotWaitForAnOnDemandCommand) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  faitra_test::temp_dir scratch("faitra-e2e-scratch");
  const std::string started = scratch.file("started");
  const std::string script = scratch.file("slow.sh");
  faitra_e2e::write_text(script, "#!/bin/sh\ntouch " + started + "\nsleep 600\n", 0755);
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--metadata-cleanup-cmd", script});
  ASSERT_TRUE(d.wait_ready());
  ASSERT_EQ(d.request("POST", "/v1/cleanup/metadata", R"({"start": 1, "end": 2})").status, 202);
  ASSERT_TRUE(faitra_test::wait_until([&] { return faitra_e2e::exists(started); }));
  // The command (and its sleep) is killed; the exit comes long before the
  // command's own end or its time limit.
  EXPECT_EQ(d.stop(SIGTERM, 60s), 0);
  EXPECT_TRUE(d.log_has("could not cleanup all or some metadata in range 1-2: killed")) << d.log();
}

TEST(DaemonLifecycleTest, RefusesUnusableOptions) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  faitra_test::temp_dir elsewhere("faitra-e2e-elsewhere");
  const std::vector<std::vector<std::string>> cases = {
      {"--root", fs.path(), "--trigger", "0.5", "--stop", "0.6"},
      {"--root", fs.path(), "--stop", "0"},
      {"--root", fs.path(), "--trigger", "1.5"},
      {"--root", fs.path(), "--watch", elsewhere.path()},
      {"--root", fs.file("missing")},
      {"--root", fs.path(), "--log-level", "chatty"},
      {"--root", fs.path(), "--trigger", "0.9", "--hard-limit", "0.9"},
      {"--root", fs.path(), "--hard-limit", "most"},
      {"--root", fs.path(), "--max-age", "7x"},
      {"--root", fs.path(), "--hold-dir", fs.path()},
  };
  for (const auto& args : cases) {
    SCOPED_TRACE(args[args.size() - 2] + " " + args.back());
    daemon_process d(args);
    const int code = d.wait_exit();
    EXPECT_NE(code, 0);
    EXPECT_NE(code, -1);  // it exited by itself, at once
  }
}

TEST(DaemonLifecycleTest, ListensOnTcpWithAPortPickedByTheSystem) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  faitra_test::write_capture(fs.file("a.pcap"), 4096, faitra_e2e::attributes(7));
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup"}, daemon_process::transport::tcp);
  ASSERT_TRUE(d.wait_ready());
  EXPECT_EQ(d.catalogue().size(), 1U);
  const auto [code, out] = faitra_e2e::run_client({"ls", "--listen", d.listen()});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("h7"), std::string::npos) << out;
  EXPECT_EQ(d.stop(), 0);
}

}  // namespace
