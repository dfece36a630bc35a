// The daemon when system calls and operator commands fail. Each case runs
// the command built with injectable faults (faulty_daemon.cpp), provokes one
// fault, and then checks the same things: the log line operators grep for is
// written, the daemon still answers, its tracker still catalogues new
// captures (or, once monitoring has ended, the reconcile does), its storage
// still deletes, and after a reconcile the catalogue equals a fresh scan,
// with no record lost or doubled.
#include "daemon_harness.hpp"

namespace faitra_e2e {
namespace {

struct fault_case {
  const char* name;
  std::vector<std::pair<std::string, std::string>> environment;  // "{arm}": the arm file
  std::vector<std::string> daemon_args;
  std::function<void(const std::string& dir)> before_start;
  // Provokes the fault; the arm file, when used, exists only during it.
  std::function<void(daemon_process&, const std::string& dir)> provoke;
  std::string expected_log;  // "{dir}": the capture directory
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
  write_capture(dir + "/" + name, size, attributes(n));
}
std::string key_of(const daemon_process& d, const std::string& path) {
  const reply r = d.request("GET", "/v1/captures/lookup?path=" + path);
  return r.status == 200 && r.json["key"].IsString() ? r.json["key"].GetString() : "";
}
auto victim_at_start = [](const std::string& dir) { write_numbered(dir, "victim.pcap", 10); };
auto new_victim = [](daemon_process&, const std::string& dir) { write_numbered(dir, "victim.pcap", 10); };

const fault_case CASES[] = {
    // The scan retries the file until its stat succeeds (the capture filter bounds that).
    {"stat_fails_during_the_startup_scan", {{"FAITRA_FAULT_STAT", "victim.pcap:3"}}, {}, victim_at_start,
     [](daemon_process& d, const std::string& dir) { EXPECT_EQ(key_of(d, dir + "/victim.pcap"), "h10"); }, ""},
    {"stat_fails_on_a_new_capture", {{"FAITRA_FAULT_STAT", "victim.pcap:1"}, {"FAITRA_FAULT_ARM", "{arm}"}}, {}, {},
     new_victim, "Failed to read the attributes of {dir}/victim.pcap."},
    {"getxattr_fails_on_a_rewritten_capture",
     {{"FAITRA_FAULT_GETXATTR", "victim.pcap:4"}, {"FAITRA_FAULT_ARM", "{arm}"}}, {}, victim_at_start,
     [](daemon_process&, const std::string& dir) {
       faitra_test::set_capture_attributes(dir + "/victim.pcap", attributes(10, "rehashed"));
     },
     "Failed to read the extended attributes of {dir}/victim.pcap."},
    {"unlink_fails_on_a_requested_deletion", {{"FAITRA_FAULT_UNLINK", "victim.pcap:1"}}, {}, victim_at_start,
     [](daemon_process& d, const std::string& dir) {
       EXPECT_EQ(d.request("DELETE", "/v1/captures?path=" + dir + "/victim.pcap").body, "{\"marked\":true}");
       ASSERT_TRUE(d.wait_log("Failed to delete capture file: " + dir + "/victim.pcap: "));
       EXPECT_TRUE(exists(dir + "/victim.pcap")) << "not retried";
       // A reconcile that updates the record keeps its marker: it is never queued twice.
       faitra_test::set_xattr(dir + "/victim.pcap", "user.pcap_hash", "rehashed");
       EXPECT_EQ(d.request("POST", "/v1/reconcile").json["updated"].GetUint64(), 1U);
       EXPECT_TRUE(d.catalogue()[dir + "/victim.pcap"].starts_with("key=rehashed "));
       EXPECT_TRUE(d.catalogue()[dir + "/victim.pcap"].ends_with("pending_deletion=true "));
       EXPECT_EQ(d.request("DELETE", "/v1/captures?path=" + dir + "/victim.pcap").body, "{\"marked\":false}");
     },
     "Failed to delete capture file: {dir}/victim.pcap: {dir}/victim.pcap: Device or resource busy"},
    {"read_fails_on_the_inotify_descriptor", {{"FAITRA_FAULT_INOTIFY_READ", "1"}}, {}, {}, new_victim,
     "Monitoring failed: read error, errno: ", true},
    // The events are lost: with no periodic reconcile, only the run the
    // overflow starts (and its follow-up once they are quiet) catalogues them.
    {"the_inotify_queue_overflows", {{"FAITRA_FAULT_INOTIFY_OVERFLOW", "1000000"}, {"FAITRA_FAULT_ARM", "{arm}"}}, {}, {},
     [](daemon_process& d, const std::string& dir) {
       for (unsigned long n = 10; n <= 12; ++n) write_numbered(dir, "lost-" + std::to_string(n) + ".pcap", n);
       EXPECT_TRUE(wait_until([&] { return key_of(d, dir + "/lost-12.pcap") == "h12" && d.catalogue().size() == 3; },
                              60s));
       EXPECT_GE(d.metric("faitra_inotify_overflows_total"), 1);
     },
     "The inotify queue overflowed and file events were lost; reconciling now"},
    {"statvfs_fails", {{"FAITRA_FAULT_STATVFS", "1000000"}}, {}, victim_at_start,
     [](daemon_process& d, const std::string& dir) {
       write_numbered(dir, "second.pcap", 11);
       EXPECT_EQ(d.request("GET", "/v1/storage").status, 200);
       EXPECT_TRUE(wait_until([&] { return key_of(d, dir + "/second.pcap") == "h11"; }));
       EXPECT_EQ(d.metric("faitra_cleanup_runs_total"), 0);
     },
     ""},
    {"cache_refresh_and_metadata_commands_fail_during_a_cleanup",
     {},
     {"--trigger", "0.1", "--stop", "0.05", "--reset-disk-cache-cmd", "false", "--metadata-cleanup-cmd", "false"},
     [](const std::string& dir) {
       for (unsigned long n = 1; n <= 12; ++n) write_numbered(dir, "old-" + std::to_string(n) + ".pcap", n, 65536);
     },
     [](daemon_process& d, const std::string& dir) {
       ASSERT_TRUE(d.wait_log("Filesystem cleanup has finished."));
       EXPECT_TRUE(d.log_has("Failed to reset disk cache: "));
       EXPECT_FALSE(exists(dir + "/old-1.pcap")) << "the run went on";
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
  // The cleaner's 15 s pauses would only slow every case down (and its stop).
  ::setenv("FAITRA_INSTANT_SLEEP", "1", 1);
  for (const auto& [name, value] : c.environment) ::setenv(name.c_str(), replace_all(value, "{arm}", arm).c_str(), 1);
  std::vector<std::string> args = {"--root", dir.path(), "--reconcile-interval", "0"};
  args.insert(args.end(), c.daemon_args.begin(), c.daemon_args.end());
  if (c.before_start) c.before_start(dir.path());
  daemon_process daemon(args, daemon_process::transport::unix_socket, FAITRA_FAULTY_BINARY);
  for (const auto& [name, value] : c.environment) ::unsetenv(name.c_str());
  ::unsetenv("FAITRA_INSTANT_SLEEP");
  ASSERT_TRUE(daemon.wait_ready());
  // The reconcile at start reads every capture too: a fault armed while it
  // runs could strike it instead of the live path.
  ASSERT_TRUE(wait_until([&] { return daemon.metric("faitra_reconcile_runs_total") >= 1; }));

  write_text(arm, "");
  c.provoke(daemon, dir.path());
  if (!c.expected_log.empty()) {
    EXPECT_TRUE(daemon.wait_log(replace_all(c.expected_log, "{dir}", dir.path())));
  }
  ::unlink(arm.c_str());

  const std::string after = dir.path() + "/after.pcap";
  write_numbered(dir.path(), "after.pcap", 99);
  EXPECT_TRUE(wait_until(
      [&] {
        if (c.monitoring_ends) daemon.request("POST", "/v1/reconcile");
        return key_of(daemon, after) == "h99";
      },
      60s));
  EXPECT_EQ(daemon.request("DELETE", "/v1/captures?path=" + after).body, "{\"marked\":true}");
  EXPECT_TRUE(wait_until([&] { return !exists(after); }));
  // What the live path missed, the reconcile repairs; then the catalogue is
  // exactly the directory (a capture whose removal failed stays marked,
  // which a scan cannot know).
  EXPECT_TRUE(wait_until(
      [&] {
        const reply r = daemon.request("POST", "/v1/reconcile");
        return r.status == 200 && r.json["deferred"].GetInt64() == 0;
      },
      60s));
  std::map<std::string, std::string> catalogued;
  for (const auto& [path, text] : daemon.catalogue()) {
    catalogued.emplace(path, replace_all(text, "pending_deletion=true", "pending_deletion=false"));
  }
  EXPECT_EQ(daemon.request("GET", "/v1/captures").json["captures"].Size(), catalogued.size()) << "a doubled record";
  EXPECT_EQ(catalogued, fresh_scan(dir.path()));
  EXPECT_EQ(daemon.stop(), 0);
}

INSTANTIATE_TEST_SUITE_P(Faults, DaemonFaults, ::testing::ValuesIn(CASES),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace faitra_e2e
