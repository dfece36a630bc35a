// The command line of the real binary: values that must be refused before
// anything starts, each with a message that says what is wrong with it, and
// a daemon that cannot listen.
#include "daemon_harness.hpp"

namespace {

using faitra_e2e::daemon_process;
using faitra_e2e::run_result;

TEST(CommandLine, RefusesBadValuesSayingWhy) {
  faitra_test::temp_dir dir("faitra-e2e-cli");
  const std::string root = dir.path();
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"serve", "--root", root, "--reconcile-interval", "-1"}, "-1 is negative"},
      {{"serve", "--root", root, "--reconcile-interval", "abc"}, "'abc' is not a number"},
      {{"serve", "--root", root, "--reconcile-interval", "1.5"}, "1.5 is not a whole number"},
      {{"serve", "--root", root, "--trigger", "2"}, "2 is too large; expected a number from 0 to 1"},
      {{"serve", "--root", root, "--log-level", "chatty"}, "expected emerg, alert, crit"},
      {{"ls", "--limit", "0"}, "0 is too small"},
      {{"gen", root, "--rate", "-1"}, "-1 is negative; expected a number of at least 0"},
      {{"scan", "--suffix", "", root}, "an empty suffix"},
  };
  for (const auto& [args, message] : cases) {
    SCOPED_TRACE(::testing::PrintToString(args));
    const run_result r = faitra_e2e::run(args);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find(message), std::string::npos) << r.err;
    EXPECT_LT(r.err.size(), 300U) << "a bound printed in full: " << r.err;
  }
}

TEST(CommandLine, ADaemonThatCannotListenSaysWhyBeforeItScans) {
  faitra_test::temp_dir dir("faitra-e2e-cli");
  daemon_process taken({"--root", dir.path(), "--no-auto-cleanup"}, daemon_process::transport::tcp);
  ASSERT_TRUE(taken.wait_ready());
  const std::vector<std::pair<std::string, std::string>> cases = {
      {taken.listen(), "Address already in use"},
      {"unix:" + dir.file("missing/api.sock"), "No such file or directory"},
      {"192.0.2.1:8470", "Cannot assign requested address"},  // an address of no interface here
  };
  for (const auto& [where, reason] : cases) {
    SCOPED_TRACE(where);
    daemon_process d({"--root", dir.path(), "--listen", where}, daemon_process::transport::default_listen);
    EXPECT_EQ(d.wait_exit(), 1);
    EXPECT_TRUE(d.log_has("cannot listen on " + where + ": " + reason)) << d.log();
    EXPECT_FALSE(d.log_has("Scanning")) << d.log();
  }
}

}  // namespace
