// Parts of the host library that the binary cannot drive reliably: the
// operator-command runner's limits, the listen address forms, the catalogue
// comparison behind the reconcile, and the capture filter ending the scan's
// retry of a vanished file.
#include "daemon_harness.hpp"

#include <faitra/host/capture_filter.hpp>
#include <faitra/host/daemon_address.hpp>
#include <faitra/host/daemon_command.hpp>
#include <faitra/host/reconcile.hpp>

namespace faitra_e2e {
namespace {

using faitra_host::command_runner;

// Shutdown's cancel is the daemon tests' business (a running command is killed).
TEST(CommandRunner, PassesWordsWithoutAShellAndKillsACommandPastItsTime) {
  faitra_test::temp_dir dir("faitra-e2e-cmd");
  write_text(dir.file("args.sh"), "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done > " + dir.file("args") + "\n",
             0755);
  EXPECT_TRUE(command_runner("  " + dir.file("args.sh") + "  ;touch\t$HOME/x ").run({"2;rm -rf /", "$(id)"}).ok);
  EXPECT_EQ(read_text(dir.file("args")), "[;touch]\n[$HOME/x]\n[2;rm -rf /]\n[$(id)]\n");
  EXPECT_NE(command_runner("/nonexistent/faitra-command").run({}).error.find("cannot run"), std::string::npos);
  EXPECT_NE(command_runner("sleep 600", 200ms).run({}).error.find("killed"), std::string::npos);
}

TEST(ListenAddress, AcceptsTheThreeFormsAndNothingElse) {
  faitra_host::listen_address a;
  std::string error;
  for (const auto& [text, shown] : {std::pair{"127.0.0.1:65535", "127.0.0.1:65535"}, {"[::1]:0", "[::1]:0"},
                                    {"unix:/run/faitra.sock", "unix:/run/faitra.sock"}}) {
    ASSERT_TRUE(faitra_host::parse_listen_address(text, a, error)) << text;
    EXPECT_EQ(a.unix_socket ? "unix:" + a.host : a.host_for_display() + ":" + std::to_string(a.port), shown);
  }
  for (const char* bad : {"8470", "host:", "host:65536", "host:-1", "host:12x", "::1:80", "[::1:80", "unix:", ":80"}) {
    EXPECT_FALSE(faitra_host::parse_listen_address(bad, a, error)) << bad;
  }
}

TEST(ReconcileCompare, FindsMissingExtraAndChangedRecordsButNotMarkers) {
  csl::fs_cache catalogue, disk;
  auto add = [](csl::fs_cache& c, const char* path, std::optional<std::string> key, unsigned long creation = 1,
                std::optional<unsigned long> end = 20, unsigned long size = 100) {
    c.insert(std::make_shared<csl::fs_entry>(faitra_test::record(path, key, creation, 10, end, size)));
  };
  for (const char* path : {"/d/same", "/d/gone", "/d/size", "/d/end", "/d/creation", "/d/key"}) {
    add(catalogue, path, std::string(path) == "/d/key" ? std::nullopt : std::optional<std::string>("k"));
  }
  add(disk, "/d/same", "k");
  add(disk, "/d/new", "k");
  add(disk, "/d/size", "k", 1, 20, 101);
  add(disk, "/d/end", "k", 1, std::nullopt);
  add(disk, "/d/creation", "k", 2);
  add(disk, "/d/key", "x");
  csl::fs_entry marked;
  catalogue.by_path(marked, "/d/same");
  marked.deletion = csl::fs_entry::deletion_by::requested;  // says nothing about the file
  catalogue.update(marked);
  EXPECT_EQ(faitra_host::differing_paths(catalogue, disk),
            (std::vector<std::string>{"/d/creation", "/d/end", "/d/gone", "/d/key", "/d/new", "/d/size"}));
}

// The scan examines an entry again, without advancing, while its stat
// fails; the filter must end that loop for a file that is gone.
TEST(CaptureFilter, EndsTheScanRetryOfAVanishedOrStuckFile) {
  faitra_test::temp_dir dir("faitra-e2e-filter");
  faitra_host::capture_filter filter({".pcap"}, {dir.path()});
  EXPECT_TRUE(filter("gone.pcap"));
  EXPECT_FALSE(filter("gone.pcap")) << "offered again at once: its stat failed and it is gone";
  ASSERT_EQ(filter.problems().size(), 1U);
  faitra_test::write_and_close(dir.file("stuck.pcap"), 1);
  unsigned accepted = 0;
  while (filter("stuck.pcap") && accepted <= faitra_host::capture_filter::MAX_STAT_RETRIES + 1) ++accepted;
  EXPECT_TRUE(accepted > 1 && accepted <= faitra_host::capture_filter::MAX_STAT_RETRIES) << accepted;
  EXPECT_TRUE(filter("other.pcap") && filter(dir.file("gone.pcap"))) << "later scans and the monitor still see names";
  EXPECT_FALSE(filter("notes.txt"));
}

}  // namespace
}  // namespace faitra_e2e
