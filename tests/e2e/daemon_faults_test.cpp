// The daemon when system calls and operator commands fail. Each case runs
// the command built with injectable faults (faulty_daemon.cpp), provokes one
// fault and then checks the same things: the log line operators grep for is
// written, the daemon still answers, its tracker still catalogues new
// captures (or, once monitoring has ended, the reconcile does), its storage
// thread still deletes, and after a reconcile the catalogue equals a fresh
// scan, with no record lost or doubled.
#include "daemon_harness.hpp"

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace faitra_e2e {
namespace {

struct fault_case {
  const char* name;
  std::vector<std::pair<std::string, std::string>> environment;  // "{arm}" stands for the arm file
  std::vector<std::string> daemon_args;                           // "{scratch}" for a scratch file
  std::function<void(const std::string& dir)> before_start;
  // Provokes the fault; the arm file, when used, exists only during it.
  std::function<void(daemon_process&, const std::string& dir)> provoke;
  std::string expected_log;  // "{dir}" stands for the capture directory
  bool monitoring_ends = false;
};

void PrintTo(const fault_case& c, std::ostream* out) { *out << c.name; }

std::string replace_all(std::string text, const std::string& what, const std::string& with) {
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + with.size())) {
    text.replace(at, what.size(), with);
  }
  return text;
}

void write_numbered(const std::string& dir, const std::string& name, unsigned long n, unsigned long size = 4096) {
  faitra_test::write_capture(dir + "/" + name, size, attributes(n));
}

std::string lookup_key(const daemon_process& daemon, const std::string& path) {
  const reply r = daemon.request("GET", "/v1/captures/lookup?path=" + path);
  if (r.status != 200 || !r.json.IsObject() || !r.json["key"].IsString()) return "";
  return r.json["key"].GetString();
}

// The catalogue with deletion marks left out (a capture whose removal
// failed stays marked, which a scan cannot know), and the number of records
// the API listed, so that a doubled record shows.
std::pair<std::map<std::string, std::string>, size_t> catalogue_unmarked(const daemon_process& daemon) {
  std::map<std::string, std::string> records;
  for (auto [path, text] : daemon.catalogue()) {
    records.emplace(path, replace_all(text, "pending_deletion=true", "pending_deletion=false"));
  }
  const reply r = daemon.request("GET", "/v1/captures");
  return {records, r.status == 200 ? r.json["captures"].Size() : 0};
}

const fault_case CASES[] = {
    {"stat_fails_during_the_startup_scan",
     {{"FAITRA_FAULT_STAT", "victim.pcap:3"}},
     {},
     [](const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     // The start-up scan retries the same file until its stat succeeds; the
     // tracker's scan logs nothing, and the daemon's filter lets a few
     // retries through before it gives up on a file.
     [](daemon_process& daemon, const std::string& dir) {
       EXPECT_EQ(lookup_key(daemon, dir + "/victim.pcap"), "h10");
     },
     ""},
    {"stat_fails_on_a_new_capture",
     {{"FAITRA_FAULT_STAT", "victim.pcap:1"}, {"FAITRA_FAULT_ARM", "{arm}"}},
     {},
     {},
     [](daemon_process&, const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     "Failed to read the attributes of {dir}/victim.pcap."},
    {"getxattr_fails_on_a_rewritten_capture",
     {{"FAITRA_FAULT_GETXATTR", "victim.pcap:4"}, {"FAITRA_FAULT_ARM", "{arm}"}},
     {},
     [](const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     [](daemon_process&, const std::string& dir) {
       faitra_test::set_capture_attributes(dir + "/victim.pcap", attributes(10, "rehashed"));
     },
     "Failed to read the extended attributes of {dir}/victim.pcap."},
    {"unlink_fails_on_a_requested_deletion",
     {{"FAITRA_FAULT_UNLINK", "victim.pcap:1"}},
     {},
     [](const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     [](daemon_process& daemon, const std::string& dir) {
       const reply r = daemon.request("DELETE", "/v1/captures?path=" + dir + "/victim.pcap");
       EXPECT_EQ(r.body, "{\"marked\":true}");
       ASSERT_TRUE(daemon.wait_log("Failed to delete capture file: " + dir + "/victim.pcap: "));
       // Not retried, not forgotten: the file and its marked record stay.
       EXPECT_TRUE(exists(dir + "/victim.pcap"));
       EXPECT_EQ(lookup_key(daemon, dir + "/victim.pcap"), "h10");
     },
     "Failed to delete capture file: {dir}/victim.pcap: {dir}/victim.pcap: Device or resource busy"},
    {"read_fails_on_the_inotify_descriptor",
     {{"FAITRA_FAULT_INOTIFY_READ", "1"}},
     {},
     {},
     [](daemon_process&, const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     "Monitoring failed: read error, errno: ",
     true},
    {"the_inotify_queue_overflows",
     {{"FAITRA_FAULT_INOTIFY_OVERFLOW", "1000000"}, {"FAITRA_FAULT_ARM", "{arm}"}},
     {},
     {},
     // Their events are lost. With no periodic reconcile, only the run that
     // the overflow starts (and its follow-up once they are quiet) can
     // catalogue them.
     [](daemon_process& daemon, const std::string& dir) {
       for (unsigned long n = 10; n <= 12; ++n) write_numbered(dir, "lost-" + std::to_string(n) + ".pcap", n);
       EXPECT_TRUE(faitra_test::wait_until(
           [&] { return lookup_key(daemon, dir + "/lost-12.pcap") == "h12" && daemon.catalogue().size() == 3; },
           std::chrono::minutes(1)));
       EXPECT_GE(daemon.metric("faitra_inotify_overflows_total"), 1);
     },
     "The inotify queue overflowed and file events were lost; reconciling now"},
    {"statvfs_fails",
     {{"FAITRA_FAULT_STATVFS", "1000000"}},
     {},
     [](const std::string& dir) { write_numbered(dir, "victim.pcap", 10); },
     [](daemon_process& daemon, const std::string& dir) {
       write_numbered(dir, "second.pcap", 11);
       EXPECT_EQ(daemon.request("GET", "/v1/storage").status, 200);
       EXPECT_TRUE(faitra_test::wait_until([&] { return lookup_key(daemon, dir + "/second.pcap") == "h11"; }));
       EXPECT_EQ(daemon.status_number({"cleanup", "runs"}), 0);
     },
     ""},
    {"cache_refresh_and_metadata_commands_fail_during_a_cleanup",
     {},
     {"--trigger", "0.1", "--stop", "0.05", "--reset-disk-cache-cmd", "false", "--metadata-cleanup-cmd",
      "{scratch}/metadata-offline"},
     [](const std::string& dir) {
       for (unsigned long n = 1; n <= 12; ++n) write_numbered(dir, "old-" + std::to_string(n) + ".pcap", n, 64 * 1024);
     },
     [](daemon_process& daemon, const std::string& dir) {
       ASSERT_TRUE(daemon.wait_log("Filesystem cleanup has finished."));
       EXPECT_TRUE(daemon.log_has("Failed to reset disk cache: "));
       // The run went on: the oldest captures are gone.
       EXPECT_FALSE(exists(dir + "/old-1.pcap"));
       EXPECT_TRUE(exists(dir + "/old-12.pcap"));
     },
     "could not cleanup all or some metadata in range 1000000000-"},
};

class DaemonFaults : public ::testing::TestWithParam<fault_case> {};

TEST_P(DaemonFaults, LogsTheFaultAndKeepsServingAnExactCatalogue) {
  const fault_case& c = GetParam();
  FAITRA_E2E_TMPFS(dir, 4UL << 20);
  faitra_test::temp_dir scratch("faitra-e2e-faults");
  const std::string arm = scratch.file("arm");
  write_text(scratch.file("metadata-offline"), "#!/bin/sh\necho metadata store offline >&2\nexit 3\n", 0755);
  // The cleaner's 15 s pauses would only slow every case down (and its stop).
  ::setenv("FAITRA_INSTANT_SLEEP", "1", 1);
  for (const auto& [name, value] : c.environment) ::setenv(name.c_str(), replace_all(value, "{arm}", arm).c_str(), 1);
  std::vector<std::string> args = {"--root", dir.path(), "--reconcile-interval", "0"};
  for (const std::string& a : c.daemon_args) args.push_back(replace_all(a, "{scratch}", scratch.path()));
  if (c.before_start) c.before_start(dir.path());

  daemon_process daemon(args, daemon_process::transport::unix_socket, FAITRA_FAULTY_BINARY);
  for (const auto& [name, value] : c.environment) ::unsetenv(name.c_str());
  ::unsetenv("FAITRA_INSTANT_SLEEP");
  ASSERT_TRUE(daemon.wait_ready());
  // The reconcile that runs at start reads every capture too; a fault armed
  // while it runs could strike it instead of the live path.
  ASSERT_TRUE(faitra_test::wait_until([&] { return daemon.status_number({"reconcile", "runs"}) >= 1; }));

  write_text(arm, "");
  c.provoke(daemon, dir.path());
  if (!c.expected_log.empty()) {
    EXPECT_TRUE(daemon.wait_log(replace_all(c.expected_log, "{dir}", dir.path())));
  }
  ::unlink(arm.c_str());

  // Still answering, and its threads still work.
  EXPECT_EQ(daemon.request("GET", "/v1/status").status, 200);
  const std::string after = dir.path() + "/after.pcap";
  write_numbered(dir.path(), "after.pcap", 99);
  if (c.monitoring_ends) {
    EXPECT_TRUE(faitra_test::wait_until(
        [&] {
          daemon.request("POST", "/v1/reconcile");
          return lookup_key(daemon, after) == "h99";
        },
        std::chrono::minutes(1)));
  } else {
    EXPECT_TRUE(faitra_test::wait_until([&] { return lookup_key(daemon, after) == "h99"; }));
  }
  EXPECT_EQ(daemon.request("DELETE", "/v1/captures?path=" + after).body, "{\"marked\":true}");
  EXPECT_TRUE(faitra_test::wait_until([&] { return !exists(after); }));

  // What the live path missed, the reconcile repairs; then the catalogue is
  // exactly the directory.
  EXPECT_TRUE(faitra_test::wait_until(
      [&] {
        const reply r = daemon.request("POST", "/v1/reconcile");
        return r.status == 200 && r.json["deferred"].GetInt64() == 0;
      },
      std::chrono::minutes(1)));
  const auto [catalogued, listed] = catalogue_unmarked(daemon);
  EXPECT_EQ(listed, catalogued.size());
  EXPECT_EQ(catalogued, fresh_scan(dir.path()));
  EXPECT_EQ(daemon.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, DaemonFaults, ::testing::ValuesIn(CASES),
                         [](const ::testing::TestParamInfo<fault_case>& info) { return info.param.name; });

}  // namespace
}  // namespace faitra_e2e
