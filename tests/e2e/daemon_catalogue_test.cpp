// What the daemon catalogues: only regular files (and links to them), at
// start and live; and only directories of one file system.
#include "daemon_harness.hpp"

#include <sys/stat.h>

#include <cstdio>

namespace {

using faitra_e2e::daemon_process;

constexpr unsigned long MiB = 1024 * 1024;

TEST(DaemonCatalogue, TakesOnlyRegularFilesAtStartAndLive) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  const std::string dir = fs.file("captures");
  const auto in = [&](const std::string& name) { return dir + "/" + name; };
  ASSERT_EQ(::mkdir(dir.c_str(), 0755), 0);
  faitra_test::write_capture(in("r.pcap"), 4096, faitra_e2e::attributes(1));
  ASSERT_EQ(::symlink("r.pcap", in("l.pcap").c_str()), 0);
  ASSERT_EQ(::mkdir(in("x.pcap").c_str(), 0755), 0);
  ASSERT_EQ(::mkfifo(in("f.pcap").c_str(), 0644), 0);
  ASSERT_EQ(::symlink(".", in("d.pcap").c_str()), 0);
  ASSERT_EQ(::symlink("nowhere", in("g.pcap").c_str()), 0);
  daemon_process d({"--root", fs.path(), "--watch", dir, "--no-auto-cleanup", "--reconcile-interval", "0"});
  ASSERT_TRUE(d.wait_ready());
  const auto names = [&] {
    std::string text;
    for (const auto& [path, record] : d.catalogue()) text += path.substr(dir.size() + 1) + " ";
    return text;
  };
  EXPECT_EQ(names(), "l.pcap r.pcap ");

  // Moved in, so that the monitor reports them as new names.
  ASSERT_EQ(::mkfifo(fs.file("f2.pcap").c_str(), 0644), 0);
  ASSERT_EQ(::symlink(".", fs.file("d2.pcap").c_str()), 0);
  ASSERT_EQ(std::rename(fs.file("f2.pcap").c_str(), in("f2.pcap").c_str()), 0);
  ASSERT_EQ(std::rename(fs.file("d2.pcap").c_str(), in("d2.pcap").c_str()), 0);
  faitra_test::write_capture(in("n.pcap"), 4096, faitra_e2e::attributes(2));
  ASSERT_TRUE(faitra_test::wait_until([&] { return d.catalogue().count(in("n.pcap")) != 0; }));
  EXPECT_EQ(names(), "l.pcap n.pcap r.pcap ");
  EXPECT_EQ(d.request("POST", "/v1/reconcile").status, 200);
  EXPECT_EQ(names(), "l.pcap n.pcap r.pcap ");
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
