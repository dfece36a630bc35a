// What the daemon catalogues: only regular files (and links to them), alike
// at start, live and by the reconcile; and only directories of one file
// system.
#include "daemon_harness.hpp"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>

namespace {

using faitra_e2e::daemon_process;
using faitra_test::attributes;
using faitra_test::write_capture;

constexpr unsigned long MiB = 1024 * 1024;

// One way to put a name into the watched directory, and whether that name
// is a capture. Each row gets its own target file outside the watch.
struct entry_row {
  const char* kind;
  bool catalogued;
  std::function<int(const std::string& target, const std::string& stage, const std::string& name)> make;
};

const std::vector<entry_row> entry_rows = {
    {"fifo", false, [](auto&, auto&, auto& name) { return ::mkfifo(name.c_str(), 0644); }},
    {"directory", false, [](auto&, auto&, auto& name) { return ::mkdir(name.c_str(), 0755); }},
    {"dangling", false, [](auto& target, auto&, auto& name) { return ::symlink((target + ".later").c_str(), name.c_str()); }},
    {"dirlink", false, [](auto& target, auto&, auto& name) {
       return ::symlink(target.substr(0, target.rfind('/')).c_str(), name.c_str());
     }},
    {"symlink", true, [](auto& target, auto&, auto& name) { return ::symlink(target.c_str(), name.c_str()); }},
    {"hardlink", true, [](auto& target, auto&, auto& name) { return ::link(target.c_str(), name.c_str()); }},
    {"symlink-moved", true, [](auto& target, auto& stage, auto& name) {
       return ::symlink(target.c_str(), stage.c_str()) == 0 ? ::rename(stage.c_str(), name.c_str()) : -1;
     }},
    {"hardlink-moved", true, [](auto& target, auto& stage, auto& name) {
       return ::link(target.c_str(), stage.c_str()) == 0 ? ::rename(stage.c_str(), name.c_str()) : -1;
     }},
    {"copied", true, [](auto& target, auto&, auto& name) {
       return std::system(("cp --preserve=xattr " + target + " " + name).c_str());
     }},
};

// The start-up scan, the live watch and the reconcile agree on every kind of
// name: the same names, each with its target's record; deleting removes
// names, never targets.
TEST(DaemonCatalogue, LinksAndOtherNamesAreTakenAlikeAtStartLiveAndByTheReconcile) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  const std::string caps = fs.file("caps"), out = fs.file("out");
  for (const std::string& dir : {caps, out}) ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
  std::map<std::string, std::string> expected;  // name -> record text
  unsigned long n = 0;
  const auto make_all = [&](const std::string& phase) {
    for (const entry_row& row : entry_rows) {
      const std::string name = phase + "-" + row.kind + ".pcap", target = out + "/" + name;
      write_capture(target, 4096, attributes(++n));
      const timespec old[2] = {{std::time(nullptr) - 3600, 0}, {std::time(nullptr) - 3600, 0}};
      ASSERT_EQ(::utimensat(AT_FDCWD, target.c_str(), old, 0), 0);  // not deferred by the reconcile
      const std::string record = faitra_e2e::fresh_scan(out).at(target);
      ASSERT_EQ(row.make(target, out + "/staged", caps + "/" + name), 0) << name;
      if (row.catalogued) expected[caps + "/" + name] = record;
    }
  };
  make_all("start");
  daemon_process d({"--root", fs.path(), "--watch", caps, "--no-auto-cleanup", "--reconcile-interval", "0"});
  ASSERT_TRUE(d.wait_ready());
  EXPECT_EQ(d.catalogue(), expected);
  // The reconcile at start is over: what follows is the watch's alone.
  ASSERT_TRUE(faitra_test::wait_until([&] { return d.metric("faitra_reconcile_runs_total") >= 1; }));
  make_all("live");
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.catalogue() == expected; })) << d.request("GET", "/v1/captures").body;

  // Changed behind the watch (through each name), and a dangling link's
  // target appearing: only the reconcile sees them, and takes them alike.
  for (auto& [path, record] : expected) faitra_test::set_xattr(path, "user.pcap_hash", "new");
  for (const char* phase : {"start", "live"}) {
    const std::string target = out + "/" + phase + "-dangling.pcap.later";
    write_capture(target, 4096, attributes(++n));
    const timespec old[2] = {{std::time(nullptr) - 3600, 0}, {std::time(nullptr) - 3600, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, target.c_str(), old, 0), 0);
  }
  const faitra_e2e::reply r = d.request("POST", "/v1/reconcile");
  EXPECT_EQ(r.body.substr(0, r.body.find(",\"finished_at\"")),
            R"({"added":2,"removed":0,"updated":)" + std::to_string(expected.size()) + R"(,"deferred":0)");
  const auto scanned = faitra_e2e::fresh_scan(caps);
  EXPECT_EQ(d.catalogue(), scanned);
  EXPECT_EQ(scanned.size(), expected.size() + 2);
  for (const auto& [path, record] : expected) EXPECT_TRUE(scanned.at(path).starts_with("key=new ")) << path;

  // A hold keeps a linked capture's bytes, not the link.
  const faitra_e2e::reply held = d.request(
      "POST", "/v1/holds", R"({"paths": [")" + caps + R"(/live-symlink.pcap"], "reason": "links"})");
  ASSERT_EQ(held.status, 201) << held.body;
  struct stat status {};
  ASSERT_EQ(::lstat(held.json["hold"]["captures"][0]["held_path"].GetString(), &status), 0);
  EXPECT_TRUE(S_ISREG(status.st_mode));

  EXPECT_EQ(d.request("DELETE", "/v1/captures?all=true").status, 200);
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.catalogue().empty(); }));
  for (const entry_row& row : entry_rows) {
    for (const char* phase : {"start", "live"}) {
      const std::string name = std::string(phase) + "-" + row.kind + ".pcap";
      const bool kept = !row.catalogued && std::string(row.kind) != "dangling";
      EXPECT_EQ(faitra_test::exists(caps + "/" + name), kept) << name;
      EXPECT_EQ(faitra_e2e::read_text(out + "/" + name).size(), 4096U) << "the target of " << name;
    }
  }
  EXPECT_EQ(d.stop(), 0);
}

TEST(DaemonCatalogue, RefusesWatchedDirectoriesOnTwoFileSystems) {
  FAITRA_E2E_TMPFS(a, 4 * MiB);
  FAITRA_E2E_TMPFS(c, 4 * MiB);
  const std::string root = a.path().substr(0, a.path().rfind('/'));
  daemon_process d({"--root", root, "--watch", a.path(), "--watch", c.path()});
  EXPECT_EQ(d.wait_exit(), 1);
  EXPECT_TRUE(d.log_has("are on different file systems")) << d.log();
}

}  // namespace
