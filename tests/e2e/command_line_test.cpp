// The command line of the real binary: --version, and values that must be
// refused before anything starts, each with a message that says what is
// wrong with it.
#include "daemon_harness.hpp"

#include <faitra/host/daemon.hpp>

namespace {

using faitra_e2e::run;
using faitra_e2e::run_result;

TEST(CommandLine, PrintsItsVersion) {
  const run_result r = run({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, "faitra " + std::string(faitra_host::faitra_version()) + "\n");
}

TEST(CommandLine, RefusesBadValuesSayingWhy) {
  faitra_test::temp_dir dir("faitra-e2e-cli");
  const std::string root = dir.path();
  struct bad_value {
    std::vector<std::string> args;
    std::string message;  // part of standard error
  };
  const std::vector<bad_value> cases = {
      {{"serve", "--root", root, "--reconcile-interval", "-1"}, "-1 is negative"},
      {{"serve", "--root", root, "--reconcile-interval", "abc"}, "'abc' is not a number"},
      {{"serve", "--root", root, "--reconcile-interval", "1.5"}, "1.5 is not a whole number"},
      {{"serve", "--root", root, "--reconcile-interval", "99999999999999999999"}, "is too large"},
      {{"serve", "--root", root, "--trigger", "2"}, "2 is too large; expected a number from 0 to 1"},
      {{"serve", "--root", root, "--stop", "x"}, "'x' is not a number"},
      {{"serve", "--root", root, "--log-level", "chatty"}, "expected emerg, alert, crit"},
      {{"ls", "--limit", "0"}, "0 is too small"},
      {{"extract", "--start", "1", "--end", "2", "--limit-packets", "-1"}, "-1 is negative"},
      {{"gen", root, "--rate", "-1"}, "-1 is negative; expected a number of at least 0"},
      {{"gen", root, "--count", "abc"}, "'abc' is not a number"},
  };
  for (const bad_value& c : cases) {
    SCOPED_TRACE(::testing::PrintToString(c.args));
    const run_result r = run(c.args);
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("not in range"), std::string::npos) << r.err;
    EXPECT_LT(r.err.size(), 400U) << "a bound printed in full: " << r.err;
  }
}

}  // namespace
