// Several capture roots in one daemon, against the real binary on two
// tmpfs: each root keeps its own thresholds and suffixes from its [[root]]
// table and is cleaned alone; the API answers across the roots unless
// root= names one; roots that nest are refused before anything starts.
#include "daemon_harness.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

namespace {

using faitra_e2e::daemon_process;
using faitra_test::write_capture;

constexpr unsigned long MiB = 1024 * 1024;

size_t on_disk(const std::string& dir) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir), {}));
}

std::vector<std::string> listed(const daemon_process& d, const std::string& query) {
  std::vector<std::string> paths;
  const faitra_e2e::reply r = d.request("GET", "/v1/captures" + query);
  if (r.status != 200) return {"status " + std::to_string(r.status)};
  for (const auto& record : r.json["captures"].GetArray()) paths.emplace_back(record["path"].GetString());
  return paths;
}

TEST(RootsTest, EachRootIsCleanedToItsOwnStopAndTheApiAnswersAcrossThem) {
  FAITRA_E2E_TMPFS(a, 16 * MiB);
  FAITRA_E2E_TMPFS(b, 16 * MiB);
  // Both about 60% full: above a's trigger, below b's. b takes .cap only.
  for (unsigned long n = 1; n <= 10; ++n) {
    write_capture(a.file("a" + std::to_string(n) + ".pcap"), MiB, faitra_e2e::attributes(n));
    write_capture(b.file("b" + std::to_string(n) + ".cap"), MiB, faitra_e2e::attributes(100 + n));
  }
  write_capture(b.file("other.pcap"), 4096, faitra_e2e::attributes(1000));
  faitra_test::temp_dir dir("faitra-roots");
  faitra_e2e::write_text(dir.file("faitra.toml"), "trigger = 0.5\nstop = 0.3\n[[root]]\npath = '" + a.path() +
                                                      "'\n[[root]]\npath = '" + b.path() +
                                                      "'\ntrigger = 0.8\nstop = 0.7\nsuffix = ['.cap']\n");
  daemon_process d({"--config", dir.file("faitra.toml")});
  ASSERT_TRUE(d.wait_ready());

  // Cleaned below its stop, and the catalogue has seen every removal.
  std::vector<std::string> in_a;
  ASSERT_TRUE(faitra_test::wait_until([&] {
    in_a = listed(d, "?root=" + a.path());
    return faitra_e2e::usage(a.path()) < 0.3 && in_a.size() == on_disk(a.path());
  }));
  EXPECT_GT(faitra_e2e::usage(b.path()), 0.5);
  const std::vector<std::string> in_b = listed(d, "?root=" + b.path() + "/");
  ASSERT_EQ(in_b.size(), 10U);  // untouched, and without other.pcap
  EXPECT_EQ(in_b.front(), b.file("b1.cap"));
  ASSERT_FALSE(in_a.empty());
  EXPECT_LT(in_a.size(), 6U);
  EXPECT_EQ(in_a.back(), a.file("a9.pcap"));  // path order: a10 sorts before a2
  EXPECT_FALSE(faitra_e2e::exists(a.file("a1.pcap")));

  // Across the roots: one listing in path order, one time window in time
  // order, lookups and deletions wherever the capture lies.
  std::vector<std::string> both = listed(d, "");
  EXPECT_EQ(both.size(), in_a.size() + in_b.size());
  EXPECT_TRUE(std::is_sorted(both.begin(), both.end()));
  both = listed(d, "?start=0&end=200000000000");
  ASSERT_EQ(both.size(), in_a.size() + in_b.size());
  EXPECT_EQ(both.back(), b.file("b10.cap"));
  EXPECT_EQ(listed(d, "?limit=3").size(), 3U);
  EXPECT_EQ(d.request("GET", "/v1/captures/lookup?key=h105").json["path"].GetString(), b.file("b5.cap"));
  EXPECT_EQ(d.request("GET", "/v1/captures/lookup?key=h105&root=" + a.path()).status, 404);
  EXPECT_EQ(d.request("DELETE", "/v1/captures?path=" + b.file("b5.cap")).json["marked"].GetBool(), true);
  EXPECT_TRUE(faitra_test::wait_until([&] { return d.metric("faitra_captures{root=\"" + b.path() + "\"}") == 9; }));
  const faitra_e2e::reply unknown = d.request("GET", "/v1/storage?root=/nowhere");
  EXPECT_EQ(unknown.status, 404);
  EXPECT_NE(unknown.body.find(b.path()), std::string::npos) << unknown.body;

  const faitra_e2e::run_result ls = faitra_e2e::run({"ls", "--listen", d.listen(), "--root", b.path(), "--json"});
  EXPECT_NE(ls.out.find(b.file("b1.cap")), std::string::npos) << ls.out << ls.err;
  EXPECT_EQ(ls.out.find(a.path()), std::string::npos) << ls.out;

  // Status and metrics, root by root.
  const faitra_e2e::reply status = d.request("GET", "/v1/status");
  ASSERT_TRUE(status.json["roots"].IsArray());
  ASSERT_EQ(status.json["roots"].Size(), 2U);
  const auto& second = status.json["roots"][1];
  EXPECT_EQ(std::string(second["root"].GetString()), b.path());
  EXPECT_DOUBLE_EQ(second["trigger"].GetDouble(), 0.8);
  EXPECT_EQ(second["cleanup"]["deleted_by_cleanup"].GetUint64(), 0U);
  EXPECT_EQ(second["retention"]["newest_start"].GetUint64(), 110 * 1000000000UL);
  EXPECT_GT(status.json["roots"][0]["cleanup"]["deleted_by_cleanup"].GetUint64(), 0U);
  EXPECT_EQ(std::string(status.json["root"].GetString()), a.path());
  EXPECT_EQ(d.stop(), 0);
}

TEST(RootsTest, RootsThatNestOrRepeatAreRefusedBeforeAnythingStarts) {
  faitra_test::temp_dir top("faitra-roots");
  ::mkdir(top.file("inner").c_str(), 0755);
  ::mkdir(top.file("inner/deeper").c_str(), 0755);
  const std::string listen = "unix:" + top.file("api.sock");
  struct refusal {
    std::vector<std::string> roots;
    const char* says;
  };
  const std::vector<refusal> cases = {
      {{top.file("inner"), top.file("inner/deeper")}, "lies inside the root"},
      {{top.file("inner/deeper"), top.path()}, "lies inside the root"},
      {{top.file("inner"), top.file("inner/../inner/")}, "is given twice"},
  };
  for (const refusal& c : cases) {
    std::vector<std::string> args = {"serve", "--listen", listen, "--log-stdout"};
    for (const std::string& r : c.roots) args.insert(args.end(), {"--root", r});
    const faitra_e2e::run_result r = faitra_e2e::run(args);
    EXPECT_EQ(r.status, 1) << c.says;
    EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
  }
}

}  // namespace
