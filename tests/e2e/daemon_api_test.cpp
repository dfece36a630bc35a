// The daemon's HTTP API and the client subcommands, against the real binary
// on a tmpfs: listings with the captures' attributes, each deletion form,
// the cleanups and their metadata command, and bad input that must change
// nothing.
#include "daemon_harness.hpp"

#include <sys/statvfs.h>

namespace faitra_e2e {
namespace {

class DaemonApi : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_fs.mounted()) GTEST_SKIP() << _fs.reason();
    for (unsigned long n : {1001UL, 1002UL, 1003UL}) write_capture(capture(n), 4096, attributes(n));
  }
  std::string capture(unsigned long n) const { return _fs.file("cap" + std::to_string(n) + ".pcap"); }
  // Started with a metadata command that appends its range to meta.out.
  std::unique_ptr<daemon_process> start(const std::string& metadata_script = "echo \"$1 $2\" >> {out}\n") {
    write_text(script(), "#!/bin/sh\n" + replace(metadata_script), 0755);
    auto d = std::make_unique<daemon_process>(std::vector<std::string>{
        "--root", _fs.path(), "--no-auto-cleanup", "--reconcile-interval", "0", "--metadata-cleanup-cmd", script()});
    EXPECT_TRUE(d->wait_ready());
    return d;
  }
  std::string script() const { return _scratch.file("meta.sh"); }
  std::string out() const { return _scratch.file("meta.out"); }
  std::string replace(std::string text) const { return text.replace(text.find("{out}"), 5, out()); }
  std::vector<std::string> paths(const rapidjson::Value& records) const {
    std::vector<std::string> out;
    for (const auto& r : records.GetArray()) out.push_back(r["path"].GetString());
    return out;
  }

  faitra_test::tmpfs_mount _fs{64UL << 20};
  faitra_test::temp_dir _scratch{"faitra-e2e-scratch"};
};

TEST_F(DaemonApi, ListsByClosedRangeDeletesByPathEitherRangeOrAllAndCountsByReason) {
  auto d = start();
  write_capture(capture(1004), 8192, attributes(1004));  // live: shows up with its attributes
  EXPECT_TRUE(wait_until([&] { return d->catalogue()[capture(1004)].starts_with("key=h1004 "); }));
  EXPECT_EQ(d->catalogue()[capture(1001)], "key=h1001 creation_ts=1001 start_ts=1001000000000 "
                                           "end_ts=1001500000000 file_size=4096 pending_deletion=false ");
  const std::pair<std::string, std::vector<std::string>> queries[] = {
      {"start=1002000000000&end=1003000000000", {capture(1002), capture(1003)}},
      {"start=1001000000001&end=1002000000000", {capture(1001), capture(1002)}},  // packets overlap it
      {"start=1001000000001&end=1002000000000&match=start", {capture(1002)}},
      {"limit=2", {capture(1001), capture(1002)}}};
  for (const auto& [query, expected] : queries) {
    EXPECT_EQ(paths(d->request("GET", "/v1/captures?" + query).json["captures"]), expected) << query;
  }
  EXPECT_EQ(d->request("GET", "/v1/captures/lookup?path=" + capture(1002)).json["end_ts"].GetUint64(), 1002500000000U);
  EXPECT_EQ(d->request("GET", "/v1/captures/lookup?path=" + _fs.file("none.pcap")).status, 404);
  struct statvfs fs {};
  ASSERT_EQ(::statvfs(_fs.path().c_str(), &fs), 0);
  EXPECT_EQ(d->request("GET", "/v1/storage").json["disk_space"]["total"].GetUint64(), fs.f_bsize * fs.f_blocks);

  EXPECT_EQ(d->request("DELETE", "/v1/captures?path=" + capture(1001)).body, R"({"marked":true})");
  const reply by_start = d->request("DELETE", "/v1/captures?start=1002000000000&end=1002000000000");
  ASSERT_EQ(paths(by_start.json["marked"]), std::vector<std::string>{capture(1002)});
  EXPECT_TRUE(by_start.json["marked"][0]["pending_deletion"].GetBool());
  EXPECT_EQ(paths(d->request("DELETE", "/v1/captures?start=1003&end=1003&by=creation").json["marked"]),
            std::vector<std::string>{capture(1003)});
  EXPECT_TRUE(wait_until([&] { return d->catalogue().size() == 1; }));
  for (unsigned long n : {1001UL, 1002UL, 1003UL}) EXPECT_FALSE(exists(capture(n)));
  write_capture(capture(1005), 4096, attributes(1005));
  EXPECT_TRUE(wait_until([&] { return d->catalogue().size() == 2; }));
  EXPECT_EQ(d->request("DELETE", "/v1/captures?all=true").body, R"({"marked":2})");
  EXPECT_TRUE(wait_until([&] { return d->metric("faitra_captures_deleted_total{reason=\"request\"}") == 5; }));
  EXPECT_FALSE(exists(capture(1005)));
  EXPECT_EQ(d->metric("faitra_captures_deleted_total{reason=\"cleanup\"}"), 0);
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApi, BadInputIsRefusedWithItsReasonAndChangesNothing) {
  auto d = start();
  const auto before = d->catalogue();
  const std::string age = "/v1/cleanup/age", meta = "/v1/cleanup/metadata";
  const struct {
    const char* method;
    std::string target, body;
    int status;
    const char* reason;
  } cases[] = {
      {"GET", "/v1/captures?start=abc&end=5", "", 400, "is not a time"},
      {"GET", "/v1/captures?start=18446744073709551616&end=5", "", 400, "64 bits"},
      {"GET", "/v1/captures?start=5", "", 400, "together"},
      {"GET", "/v1/captures?start=9&end=5", "", 400, "after end"},
      {"GET", "/v1/captures?limit=0", "", 400, "limit"},
      {"GET", "/v1/captures?start=1&end=2&bogus=1", "", 400, "unknown parameter"},
      {"GET", "/v1/captures?start=1&start=2&end=3", "", 400, "more than once"},
      {"GET", "/v1/captures/lookup", "", 400, "path"},
      {"GET", "/v1/nothing", "", 404, "no such endpoint"},
      {"PATCH", "/v1/status", "{}", 405, "not allowed"},
      {"DELETE", "/v1/captures", "", 400, "exactly one"},
      {"DELETE", "/v1/captures?all=false", "", 400, "all must be true"},
      {"DELETE", "/v1/captures?start=1&end=2&by=size", "", 400, "start or creation"},
      {"DELETE", "/v1/captures?path=", "", 400, "empty"},
      {"DELETE", "/v1/captures?path=cap1001.pcap", "", 404, "no capture"},
      {"POST", age, R"({"mode": "everything", "cutoff": 99999})", 400, "mode"},
      {"POST", age, R"({"mode": "files"})", 400, "missing member"},
      {"POST", age, R"({"mode": "files", "cutoff": -1})", 400, "non-negative"},
      {"POST", age, R"({"mode": "both", "cutoff": 18446744074})", 400, "nanoseconds"},
      {"POST", age, R"({"mode": "files", "cutoff": 99999, "cutoff": 1})", 400, "more than once"},
      {"POST", age, R"({"mode": "files", "cutoff": 99999)", 400, "malformed JSON"},
      {"POST", age, std::string(70 * 1024, ' '), 413, "larger than"},
      {"POST", meta, R"({"start": 9, "end": 5})", 400, "after end"},
      {"PUT", meta + "/automatic", R"({"enabled": "no"})", 400, "true or false"},
  };
  for (const auto& c : cases) {
    const reply r = d->request(c.method, c.target, c.body);
    EXPECT_EQ(r.status, c.status) << c.method << " " << c.target << " " << c.body.substr(0, 60) << ": " << r.body;
    EXPECT_TRUE(r.json.IsObject() && r.json["error"].IsString() &&
                std::string(r.json["error"].GetString()).find(c.reason) != std::string::npos)
        << c.method << " " << c.target << ": " << r.body;
  }
  // A reconcile waits behind any deletion the tracker would see.
  EXPECT_EQ(d->request("POST", "/v1/reconcile", "").status, 200);
  EXPECT_EQ(d->catalogue(), before);
  EXPECT_FALSE(exists(out())) << "no cleanup ran its command";
  EXPECT_TRUE(d->request("GET", "/v1/status").json["automatic_metadata_cleanup"].GetBool());
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApi, CleanupsRunTheMetadataCommandWithTheirRangeBeforeRemovingFiles) {
  auto d = start();
  auto ranges = [&] { return faitra_e2e::read_text(out()); };
  EXPECT_EQ(d->request("POST", "/v1/cleanup/metadata", R"({"start": 5, "end": 18446744073709551615})").status, 202);
  EXPECT_TRUE(wait_until([&] { return ranges() == "5 18446744073709551615\n"; })) << ranges();
  // Age cleanups clean metadata whatever the automatic switch says.
  EXPECT_EQ(d->request("PUT", "/v1/cleanup/metadata/automatic", R"({"enabled": false})").status, 200);
  EXPECT_FALSE(d->request("GET", "/v1/status").json["automatic_metadata_cleanup"].GetBool());
  // Cut-offs are seconds of creation; the command gets nanoseconds.
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "metadata", "cutoff": 1002})").status, 202);
  EXPECT_TRUE(wait_until([&] { return ranges().ends_with("\n0 1002000000000\n"); }));
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 1001})").status, 202);
  EXPECT_TRUE(wait_until([&] { return d->catalogue().size() == 2 && !exists(capture(1001)); }));
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "both", "cutoff": 1002})").status, 202);
  EXPECT_TRUE(wait_until([&] { return !exists(capture(1002)); }));
  EXPECT_EQ(ranges(), "5 18446744073709551615\n0 1002000000000\n0 1002000000000\n");
  EXPECT_TRUE(exists(capture(1003)));
  EXPECT_TRUE(wait_until([&] { return d->metric("faitra_captures_deleted_total{reason=\"cleanup\"}") == 2; }));
  EXPECT_EQ(d->stop(), 0);

  auto failing = start("echo 'metadata store unreachable' >&2; exit 3 # {out}\n");
  EXPECT_EQ(failing->request("POST", "/v1/cleanup/metadata", R"({"start": 7, "end": 9})").status, 202);
  EXPECT_TRUE(failing->wait_log("could not cleanup all or some metadata in range 7-9: metadata store unreachable"));
  EXPECT_TRUE(wait_until([&] { return failing->metric("faitra_metadata_cleanup_failures_total") == 1; }));
}

TEST_F(DaemonApi, ClientSubcommandsPrintWhatTheApiSays) {
  auto d = start();
  auto client = [&](std::vector<std::string> args) {
    args.insert(args.begin() + 1, {"--listen", d->listen()});
    return run(args);
  };
  const run_result listed = client({"ls"});
  EXPECT_EQ(listed.status, 0);
  for (const std::string& text : {std::string("PATH"), capture(1002), std::string("h1003")}) {
    EXPECT_NE(listed.out.find(text), std::string::npos) << listed.out;
  }
  rapidjson::Document doc;
  doc.Parse(client({"ls", "--json", "--start", "1003000000000", "--end", "1003000000000"}).out.c_str());
  ASSERT_TRUE(doc.IsObject());
  EXPECT_EQ(paths(doc["captures"]), std::vector<std::string>{capture(1003)});
  EXPECT_NE(client({"df"}).out.find("USE%"), std::string::npos);
  EXPECT_NE(client({"rm", capture(1001)}).out.find("marked for deletion: " + capture(1001)), std::string::npos);
  EXPECT_EQ(client({"rm", _fs.file("nothing.pcap")}).status, 1);
  EXPECT_NE(client({"rm", "--start", "1002", "--end", "1002", "--by", "creation"}).out.find(capture(1002)),
            std::string::npos);
  EXPECT_EQ(client({"cleanup", "--age", "1003", "--mode", "files"}).status, 0);
  EXPECT_TRUE(wait_until([&] { return !exists(capture(1001)) && !exists(capture(1002)) && !exists(capture(1003)); }));
  EXPECT_NE(client({"cleanup", "--age", "1", "--mode", "bogus"}).status, 0);
  EXPECT_EQ(client({"metadata-cleanup", "--automatic", "off"}).status, 0);
  EXPECT_FALSE(d->request("GET", "/v1/status").json["automatic_metadata_cleanup"].GetBool());
  EXPECT_NE(client({"reconcile"}).out.find("added 0, removed 0, updated 0"), std::string::npos);
  EXPECT_NE(client({"status"}).out.find("captures"), std::string::npos);
  EXPECT_EQ(d->stop(), 0);
  EXPECT_EQ(client({"status"}).status, 1) << "nobody listens";
}

}  // namespace
}  // namespace faitra_e2e
