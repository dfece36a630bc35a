// Parts of the daemon that the end-to-end tests cannot drive reliably: the
// command runner's limits, the listen address forms, the metrics text and
// the catalogue comparison behind the reconcile.
#include "daemon_harness.hpp"

#include <faitra/host/daemon_address.hpp>
#include <faitra/host/daemon_command.hpp>
#include <faitra/host/metrics.hpp>
#include <faitra/host/reconcile.hpp>

#include "support/records.hpp"

#include <thread>

namespace {

using namespace std::chrono_literals;
using faitra_host::command_runner;
using faitra_e2e::read_text;
using faitra_e2e::write_text;

TEST(CommandRunnerTest, SplitsOnSpacesOnlyAndNeverUsesAShell) {
  EXPECT_EQ(faitra_host::split_command_line("  /bin/x  -a\tb  "), (std::vector<std::string>{"/bin/x", "-a", "b"}));
  faitra_test::temp_dir dir("faitra-e2e-cmd");
  const std::string script = dir.file("args.sh");
  write_text(script, "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done > " + dir.file("args") + "\n", 0755);
  // Shell syntax in the command line and in the extra arguments is passed
  // through as plain words.
  const command_runner runner(script + " ;touch $HOME/x");
  const auto result = runner.run({"1", "2;rm -rf /", "$(id)"});
  EXPECT_TRUE(result.ok) << result.error;
  EXPECT_EQ(read_text(dir.file("args")), "[;touch]\n[$HOME/x]\n[1]\n[2;rm -rf /]\n[$(id)]\n");
}

TEST(CommandRunnerTest, ReportsStandardErrorOrTheExitStatus) {
  const auto with_text = command_runner("/bin/ls /nonexistent-faitra-path").run({});
  EXPECT_FALSE(with_text.ok);
  EXPECT_NE(with_text.error.find("nonexistent-faitra-path"), std::string::npos) << with_text.error;
  const auto status_only = command_runner("false").run({});
  EXPECT_FALSE(status_only.ok);
  EXPECT_NE(status_only.error.find("exited with status 1"), std::string::npos) << status_only.error;
  const auto missing = command_runner("/nonexistent/faitra-command").run({});
  EXPECT_FALSE(missing.ok);
  EXPECT_NE(missing.error.find("cannot run"), std::string::npos) << missing.error;
  EXPECT_TRUE(command_runner("true").run({}).ok);
}

TEST(CommandRunnerTest, KillsACommandPastItsTimeLimitOrWhenCancelled) {
  const command_runner slow("sleep 600", 200ms);
  const auto timed_out = slow.run({});
  EXPECT_FALSE(timed_out.ok);
  EXPECT_NE(timed_out.error.find("killed"), std::string::npos) << timed_out.error;

  faitra_test::temp_dir dir("faitra-e2e-cmd");
  const std::string started = dir.file("started");
  const std::string script = dir.file("slow.sh");
  write_text(script, "#!/bin/sh\ntouch " + started + "\nsleep 600\n", 0755);
  command_runner cancelled(script);
  std::thread canceller([&] {
    faitra_test::wait_until([&] { return ::access(started.c_str(), F_OK) == 0; });
    cancelled.cancel_all();
  });
  const auto result = cancelled.run({});
  canceller.join();
  EXPECT_FALSE(result.ok);
  EXPECT_NE(result.error.find("stopping"), std::string::npos) << result.error;
  EXPECT_FALSE(cancelled.run({}).ok);  // later runs are refused at once
}

TEST(ListenAddressTest, AcceptsTheThreeFormsAndNothingElse) {
  faitra_host::listen_address a;
  std::string error;
  ASSERT_TRUE(faitra_host::parse_listen_address("127.0.0.1:65535", a, error));
  EXPECT_FALSE(a.unix_socket);
  EXPECT_EQ(a.host, "127.0.0.1");
  EXPECT_EQ(a.port, 65535);
  ASSERT_TRUE(faitra_host::parse_listen_address("[::1]:0", a, error));
  EXPECT_EQ(a.host, "::1");
  EXPECT_EQ(a.port, 0);
  EXPECT_EQ(a.host_for_display(), "[::1]");
  ASSERT_TRUE(faitra_host::parse_listen_address("unix:/run/faitra.sock", a, error));
  EXPECT_TRUE(a.unix_socket);
  EXPECT_EQ(a.host, "/run/faitra.sock");
  for (const char* bad : {"8470", "host:", "host:65536", "host:-1", "host:12x", "::1:80", "[::1:80", "unix:", ":80"}) {
    EXPECT_FALSE(faitra_host::parse_listen_address(bad, a, error)) << bad;
  }
}

TEST(MetricsTest, RendersEveryFamilyOnceWithItsValues) {
  faitra_host::daemon_counters counters;
  counters.cleanup_runs = 2;
  counters.deleted_cleanup = 7;
  counters.drift_updated = 3;
  faitra_host::metrics_sample sample;
  sample.captures = 12;
  sample.disk_used = 1UL << 40;
  sample.cleanup_in_progress = true;
  faitra_host::copy_counters(counters, sample);
  const std::string text = faitra_host::render_metrics(sample);
  for (const char* line : {"faitra_captures 12\n", "faitra_disk_used_bytes 1099511627776\n",
                           "faitra_cleanup_in_progress 1\n", "faitra_cleanup_runs_total 2\n",
                           "faitra_captures_deleted_total{reason=\"cleanup\"} 7\n",
                           "faitra_drift_repaired_total{kind=\"updated\"} 3\n",
                           "# TYPE faitra_cleanup_runs_total counter\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line;
  }
  EXPECT_EQ(text.find("# TYPE faitra_captures_deleted_total"), text.rfind("# TYPE faitra_captures_deleted_total"));
  EXPECT_EQ(text.back(), '\n');
}

TEST(ReconcileCompareTest, FindsMissingExtraAndChangedRecords) {
  csl::fs_cache catalogue;
  csl::fs_cache disk;
  using faitra_test::shared_record;
  const auto none = std::nullopt;
  for (const auto& [path, key] : {std::pair{"/d/same", "k"}, {"/d/gone", "g"}, {"/d/size", "s"}, {"/d/end", "e"},
                                  {"/d/creation", "c"}, {"/d/marked", "m"}}) {
    catalogue.insert(shared_record(path, key, 1, 10, 20, 100));
  }
  catalogue.insert(shared_record("/d/key", none, 1, 10, 20, 100));
  for (const auto& [path, key] : {std::pair{"/d/same", "k"}, {"/d/new", "n"}, {"/d/marked", "m"}}) {
    disk.insert(shared_record(path, key, 1, 10, 20, 100));
  }
  disk.insert(shared_record("/d/size", "s", 1, 10, 20, 101));
  disk.insert(shared_record("/d/end", "e", 1, 10, none, 100));
  disk.insert(shared_record("/d/key", "x", 1, 10, 20, 100));
  disk.insert(shared_record("/d/creation", "c", 2, 10, 20, 100));
  // A marked record says the same about the file as an unmarked one.
  csl::fs_entry marked;
  catalogue.by_path(marked, "/d/marked");
  marked.deletion = csl::fs_entry::deletion_by::requested;
  catalogue.update(marked);
  EXPECT_EQ(faitra_host::differing_paths(catalogue, disk),
            (std::vector<std::string>{"/d/creation", "/d/end", "/d/gone", "/d/key", "/d/new", "/d/size"}));
  EXPECT_TRUE(faitra_host::differing_paths(disk, disk).empty());
}

}  // namespace
