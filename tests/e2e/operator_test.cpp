// What the operator looks at: the retention window, and the dry runs (an age
// cleanup's and the automatic cleanup's plan), which must list the right
// captures and change nothing.
#include "daemon_harness.hpp"

namespace {

using faitra_e2e::daemon_process;
using faitra_e2e::reply;
using faitra_test::write_capture;

constexpr unsigned long MiB = 1024 * 1024;

std::vector<std::string> names(const rapidjson::Value& records) {
  std::vector<std::string> out;
  for (const auto& r : records.GetArray()) {
    const std::string path = r["path"].GetString();
    out.push_back(path.substr(path.rfind('/') + 1));
  }
  return out;
}

TEST(OperatorTest, DryRunsListTheOldestCapturesAndMarkNothing) {
  FAITRA_E2E_TMPFS(fs, 16 * MiB);
  // Created at seconds 100, 200, 300, 400, 2 MiB each: about half the tmpfs.
  for (unsigned long n : {300UL, 100UL, 400UL, 200UL}) {
    write_capture(fs.file("c" + std::to_string(n) + ".pcap"), 2 * MiB, faitra_e2e::attributes(n));
  }
  // The plan is of a run that would stop at 20 %; none would start.
  daemon_process d({"--root", fs.path(), "--no-auto-cleanup", "--stop", "0.2", "--reconcile-interval", "0",
                    "--log-format", "json"});
  ASSERT_TRUE(d.wait_ready());
  ASSERT_TRUE(faitra_test::wait_until([&] { return d.status_number({"captures"}) == 4; }));

  const reply status = d.request("GET", "/v1/status");
  EXPECT_EQ(status.json["retention"]["oldest_start"].GetUint64(), 100000000000UL);
  EXPECT_EQ(status.json["retention"]["newest_start"].GetUint64(), 400000000000UL);
  EXPECT_EQ(status.json["retention"]["span_seconds"].GetDouble(), 300.0);
  EXPECT_EQ(d.metric("faitra_retention_oldest_start_seconds"), 100);

  const reply age = d.request("POST", "/v1/cleanup/age", R"({"mode": "both", "cutoff": 250, "dry_run": true})");
  ASSERT_EQ(age.status, 200) << age.body;
  EXPECT_EQ(names(age.json["captures"]), (std::vector<std::string>{"c100.pcap", "c200.pcap"}));
  EXPECT_EQ(age.json["bytes"].GetUint64(), 4 * MiB);
  EXPECT_EQ(age.json["metadata_range"]["end"].GetUint64(), 250000000000UL);
  EXPECT_EQ(d.request("POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 1, "dry_run": 1})").status, 400);

  // Usage is about 8 of 16 MiB; down to 20 % takes the oldest captures
  // until the estimate is below 3.2 MiB, so at least the two oldest and
  // never the newest.
  const reply plan = d.request("GET", "/v1/cleanup/plan");
  ASSERT_EQ(plan.status, 200) << plan.body;
  EXPECT_FALSE(plan.json["would_run"].GetBool());
  const std::vector<std::string> planned = names(plan.json["captures"]);
  ASSERT_GE(planned.size(), 2U);
  ASSERT_LE(planned.size(), 3U);
  EXPECT_EQ(planned[0], "c100.pcap");
  EXPECT_EQ(planned[1], "c200.pcap");
  EXPECT_LT(plan.json["estimated_after"]["fraction"].GetDouble(), 0.2);

  const auto [code, out, err] = faitra_e2e::run({"cleanup", "--listen", d.listen(), "--age", "250", "--mode",
                                                 "files", "--dry-run"});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("would delete 2 capture(s), 4.0 MiB"), std::string::npos) << out;

  // Nothing was marked or deleted.
  for (const auto& [path, record] : d.catalogue()) {
    EXPECT_NE(record.find("pending_deletion=false"), std::string::npos) << path;
    EXPECT_TRUE(faitra_e2e::exists(path)) << path;
  }
  EXPECT_EQ(d.status_number({"cleanup", "deleted_by_cleanup"}), 0);

  // --log-format json: every line one object, with its level and component.
  std::istringstream lines(d.log());
  unsigned long objects = 0;
  for (std::string line; std::getline(lines, line); ++objects) {
    rapidjson::Document entry;
    entry.Parse(line.c_str());
    ASSERT_TRUE(entry.IsObject() && entry.HasMember("level") && entry.HasMember("message")) << line;
  }
  EXPECT_GT(objects, 0U);
  EXPECT_TRUE(d.log_has(R"("level":"info","priority":6,"facility":"local0","type":"app_logic","component":"daemon")"));
}

}  // namespace
