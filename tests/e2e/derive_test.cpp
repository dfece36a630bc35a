// The daemon derives what writers left out: a real tcpdump ring, the
// capture layouts at start, writer-set attributes left alone, a restart
// that reads nothing again, and files it cannot use.
#include "daemon_harness.hpp"
#include "support/captures.hpp"

#include <sys/xattr.h>

#include <algorithm>
#include <filesystem>

namespace faitra_e2e {
namespace {

using faitra_test::command_output;

struct expected_times {
  uint64_t start = UINT64_MAX;
  uint64_t end = 0;
};

// What libpcap reads from `path`: the earliest and latest packet times.
expected_times libpcap_times(const std::string& path) {
  int link = 0;
  std::string error;
  expected_times t;
  for (const auto& p : faitra_test::libpcap_packets(path, link, error)) {
    if (p.ts_ns == 0) continue;  // a simple packet block has no time
    t.start = std::min(t.start, p.ts_ns);
    t.end = std::max(t.end, p.ts_ns);
  }
  return t;
}

// The first field of `tcpdump -r FILE -tt --nano` on its first and last line.
expected_times tcpdump_times(const std::string& path) {
  const std::string out = command_output("tcpdump -r " + path + " -tt --nano -n 2>/dev/null");
  expected_times t;
  if (out.empty()) return t;
  auto ns = [](const std::string& line) {
    const size_t dot = line.find('.');
    return std::stoull(line.substr(0, dot)) * 1000000000ULL + std::stoull(line.substr(dot + 1, 9));
  };
  t.start = ns(out);
  const size_t last = out.rfind('\n', out.size() - 2);
  t.end = ns(last == std::string::npos ? out : out.substr(last + 1));
  return t;
}

std::string xxh128sum(const std::string& path) {
  const std::string out = command_output("xxh128sum " + path);
  return out.substr(0, out.find(' '));
}

std::string xattr(const std::string& path, const char* name) {
  char buffer[256];
  const ssize_t n = ::getxattr(path.c_str(), name, buffer, sizeof buffer);
  return n < 0 ? "" : std::string(buffer, static_cast<size_t>(n));
}

std::string derived_record(const std::string& path, const expected_times& t, const std::string& key) {
  struct stat status {};
  ::stat(path.c_str(), &status);
  return "key=" + key + " creation_ts=" + std::to_string(t.start / 1000000000ULL) + " start_ts=" +
         std::to_string(t.start) + " end_ts=" + std::to_string(t.end) + " file_size=" +
         std::to_string(status.st_size) + " pending_deletion=false ";
}

TEST(Derive, EveryFileOfATcpdumpRingGetsTheTimesTcpdumpReadsAndATimeQueryFindsIt) {
  faitra_test::temp_dir dir("faitra-ring");
  daemon_process daemon({"--root", dir.path(), "--reconcile-interval", "0"});
  ASSERT_TRUE(daemon.wait_ready());
  const uint16_t port = static_cast<uint16_t>(30000 + ::getpid() % 20000);
  // -Z root: with -G, tcpdump opens each new file after dropping its
  // privileges, and the scratch directory is root's alone.
  faitra_test::tcpdump_process tcpdump({"-i", "lo", "-n", "-Z", "root", "-G", "1", "-w", dir.file("ring-%s.pcap"),
                                        "--time-stamp-precision=nano", "udp and dst port " + std::to_string(port)},
                                       dir.file("tcpdump.log"));
  if (!tcpdump.error().empty()) GTEST_SKIP() << tcpdump.error();
  faitra_test::udp_sender sender(port);
  // Until tcpdump has closed three files (each with packets) and the
  // daemon derived them.
  const bool ring = faitra_test::wait_until([&] {
    sender.send();
    if (!tcpdump.running()) return true;
    return daemon.status_number({"derivation", "derived"}) >= 3;
  }, 60s);
  if (!tcpdump.running() && daemon.status_number({"derivation", "derived"}) < 3) {
    GTEST_SKIP() << "tcpdump cannot capture on loopback: " << read_text(dir.file("tcpdump.log"));
  }
  ASSERT_TRUE(ring);
  tcpdump.stop();  // closes the newest file too

  std::vector<std::string> files;
  for (const auto& e : std::filesystem::directory_iterator(dir.path())) {
    if (e.path().extension() == ".pcap") files.push_back(e.path().string());
  }
  std::map<std::string, std::string> expected;
  uint64_t first = UINT64_MAX, last = 0;
  for (const std::string& f : files) {
    const expected_times t = tcpdump_times(f);
    if (t.end == 0) continue;  // no packet: nothing to derive
    expected[f] = derived_record(f, t, xxh128sum(f));
    first = std::min(first, t.start);
    last = std::max(last, t.end);
  }
  ASSERT_GE(expected.size(), 3U);
  EXPECT_TRUE(faitra_test::wait_until([&] {
    const auto catalogue = daemon.catalogue();
    return std::all_of(expected.begin(), expected.end(), [&](const auto& e) {
      const auto found = catalogue.find(e.first);
      return found != catalogue.end() && found->second == e.second;
    });
  }));
  for (const auto& [path, record] : expected) {
    EXPECT_EQ(daemon.catalogue()[path], record);
    EXPECT_EQ("key=" + xattr(path, "user.pcap_hash") + " ", record.substr(0, record.find(' ') + 1)) << path;
  }
  const reply r = daemon.request("GET", "/v1/captures?start=" + std::to_string(first) + "&end=" + std::to_string(last));
  ASSERT_EQ(r.status, 200);
  EXPECT_EQ(r.json["captures"].GetArray().Size(), expected.size());
}

class DeriveAtStart : public ::testing::Test {
 protected:
  void SetUp() override {
    const std::string reason = faitra_test::capture_loopback(dir.file("source"), 24, true);
    if (!reason.empty()) GTEST_SKIP() << "no tcpdump capture on loopback: " << reason;
    nano = faitra_test::read_bytes(dir.file("source"));
    std::filesystem::remove(dir.file("source"));
    std::filesystem::remove(dir.file("source.log"));
  }
  std::vector<std::string> args() const {
    return {"--root", dir.path(), "--reconcile-interval", "0", "--suffix", ".pcap", "--suffix", ".pcapng",
            "--suffix", ".lz4"};
  }
  faitra_test::temp_dir dir{"faitra-derive"};
  std::string nano;
};

TEST_F(DeriveAtStart, EveryLayoutIsDerivedWriterAttributesStayAndARestartReadsNothing) {
  faitra_test::write_bytes(dir.file("little.pcap"), nano);
  faitra_test::write_bytes(dir.file("big.pcap"), faitra_test::swap_pcap(nano));
  faitra_test::write_bytes(dir.file("two.pcapng"), faitra_test::pcap_to_pcapng(nano, false));
  faitra_test::write_bytes(dir.file("cut.pcap"), nano.substr(0, nano.size() - 5));
  ASSERT_FALSE(command_output("lz4 -q " + dir.file("little.pcap") + " " + dir.file("little.pcap.lz4") +
                              " 2>/dev/null && echo ok").empty());
  faitra_test::write_bytes(dir.file("writer.pcap"), nano);
  const faitra_test::capture_attributes writer{"writer-hash", 5000000000UL, 6000000000UL, 5};
  faitra_test::set_capture_attributes(dir.file("writer.pcap"), writer);
  struct stat writer_before {};
  ::stat(dir.file("writer.pcap").c_str(), &writer_before);

  std::map<std::string, std::string> expected;
  for (const char* name : {"little.pcap", "big.pcap", "two.pcapng", "cut.pcap"}) {
    expected[dir.file(name)] = derived_record(dir.file(name), libpcap_times(dir.file(name)), xxh128sum(dir.file(name)));
  }
  expected[dir.file("little.pcap.lz4")] =
      derived_record(dir.file("little.pcap.lz4"), libpcap_times(dir.file("little.pcap")), xxh128sum(dir.file("little.pcap.lz4")));
  {
    daemon_process daemon(args());
    ASSERT_TRUE(daemon.wait_ready());
    ASSERT_TRUE(faitra_test::wait_until([&] { return daemon.status_number({"derivation", "derived"}) == 5; }));
    auto catalogue = daemon.catalogue();
    for (const auto& [path, record] : expected) EXPECT_EQ(catalogue[path], record) << path;
    EXPECT_EQ(catalogue[dir.file("writer.pcap")].substr(0, 30), "key=writer-hash creation_ts=5 ");
    EXPECT_EQ(daemon.status_number({"derivation", "failures"}), 0);
    EXPECT_EQ(daemon.stop(), 0);
  }
  EXPECT_EQ(xattr(dir.file("writer.pcap"), "user.pcap_hash"), "writer-hash");
  struct stat writer_after {};
  ::stat(dir.file("writer.pcap").c_str(), &writer_after);
  EXPECT_TRUE(writer_after.st_ctim.tv_sec == writer_before.st_ctim.tv_sec &&
              writer_after.st_ctim.tv_nsec == writer_before.st_ctim.tv_nsec);  // not even touched
  EXPECT_TRUE(faitra_test::read_bytes(dir.file("little.pcap")) == nano);

  daemon_process again(args());
  ASSERT_TRUE(again.wait_ready());
  auto catalogue = again.catalogue();
  for (const auto& [path, record] : expected) EXPECT_EQ(catalogue[path], record) << path;
  EXPECT_EQ(again.status_number({"derivation", "bytes_read"}), 0);
  EXPECT_EQ(again.metric("faitra_derive_read_bytes_total"), 0);
}

TEST_F(DeriveAtStart, FilesItCannotUseAreCataloguedAndReportedOnce) {
  faitra_test::write_bytes(dir.file("junk.pcap"), "not a capture at all\n");
  faitra_test::write_bytes(dir.file("bad.pcap"), nano);
  faitra_test::write_bytes(dir.file("also-bad.pcap"), nano);
  faitra_test::set_xattr(dir.file("bad.pcap"), "user.pcap_start_ts", "zz");
  faitra_test::set_xattr(dir.file("also-bad.pcap"), "user.pcap_end_ts", "99999999999999999999999");
  ASSERT_EQ(::symlink("nowhere.pcap", dir.file("dangling.pcap").c_str()), 0);
  const expected_times t = libpcap_times(dir.file("bad.pcap"));

  daemon_process daemon(args());
  ASSERT_TRUE(daemon.wait_ready());
  ASSERT_TRUE(faitra_test::wait_until([&] {
    return daemon.status_number({"derivation", "derived"}) == 2 && daemon.status_number({"derivation", "failures"}) == 1;
  }));
  auto catalogue = daemon.catalogue();
  EXPECT_EQ(catalogue[dir.file("bad.pcap")], derived_record(dir.file("bad.pcap"), t, xxh128sum(dir.file("bad.pcap"))));
  EXPECT_EQ(catalogue[dir.file("junk.pcap")].substr(0, 9), "key=null ");
  EXPECT_EQ(xattr(dir.file("bad.pcap"), "user.pcap_start_ts"), "zz");  // a writer's value, left as it is
  const std::string log = daemon.log();
  for (const char* name : {"bad.pcap:", "also-bad.pcap:", "dangling.pcap:"}) {
    size_t count = 0;
    for (size_t at = log.find(std::string("skipped ") + name); at != std::string::npos;
         at = log.find(std::string("skipped ") + name, at + 1)) {
      ++count;
    }
    EXPECT_EQ(count, 1U) << name << " in\n" << log;
  }
}

TEST_F(DeriveAtStart, TagDerivesOfflineWritesOnlyWithoutDryRunAndFailsOnAFileItCannotRead) {
  faitra_test::write_bytes(dir.file("a.pcap"), nano);
  faitra_test::write_bytes(dir.file("junk.pcap"), "not a capture\n");
  const std::string key = xxh128sum(dir.file("a.pcap"));
  const run_result dry = run({"tag", "--dry-run", dir.path()});
  EXPECT_EQ(dry.status, 1) << dry.err;
  const std::string first = dry.out.substr(0, dry.out.find('\n'));
  EXPECT_NE(first.find("\"action\":\"dry-run\",\"key\":\"" + key + "\""), std::string::npos) << dry.out;
  EXPECT_NE(dry.out.find("\"action\":\"failed\""), std::string::npos) << dry.out;
  EXPECT_EQ(xattr(dir.file("a.pcap"), "user.pcap_hash"), "");

  const run_result tagged = run({"tag", dir.file("a.pcap")});
  EXPECT_EQ(tagged.status, 0) << tagged.err;
  EXPECT_EQ(xattr(dir.file("a.pcap"), "user.pcap_hash"), key);
  EXPECT_EQ(xattr(dir.file("a.pcap"), "user.pcap_start_ts"), std::to_string(libpcap_times(dir.file("a.pcap")).start));
  EXPECT_NE(run({"tag", dir.file("a.pcap")}).out.find("\"action\":\"present\""), std::string::npos);
}

}  // namespace
}  // namespace faitra_e2e
