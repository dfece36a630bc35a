// The daemon's HTTP API, against the real binary on a tmpfs: listings with
// the captures' attributes, each deletion form, the cleanups and their
// metadata command, the token, and bad input that must change nothing.
#include "daemon_harness.hpp"

#include <sys/statvfs.h>

namespace {

using faitra_e2e::daemon_process;
using faitra_e2e::reply;
using faitra_test::write_capture;
using namespace std::chrono_literals;

constexpr unsigned long MiB = 1024 * 1024;

class DaemonApiTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!_fs.mounted()) GTEST_SKIP() << _fs.reason();
    for (unsigned long n : {1001UL, 1002UL, 1003UL}) write_capture(capture(n), 4096, faitra_e2e::attributes(n));
  }

  std::string capture(unsigned long n) const { return _fs.file("cap" + std::to_string(n) + ".pcap"); }

  // A metadata cleanup command: a shell script with `body`.
  std::string metadata_script(const std::string& body) const {
    const std::string script = _scratch.file("meta.sh");
    faitra_e2e::write_text(script, "#!/bin/sh\n" + body, 0755);
    return script;
  }

  std::unique_ptr<daemon_process> start(std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"--root", _fs.path(), "--no-auto-cleanup", "--reconcile-interval", "0"};
    args.insert(args.end(), extra.begin(), extra.end());
    auto d = std::make_unique<daemon_process>(args);
    EXPECT_TRUE(d->wait_ready());
    return d;
  }

  faitra_test::tmpfs_mount _fs{64 * MiB};
  faitra_test::temp_dir _scratch{"faitra-e2e-scratch"};
};

std::vector<std::string> paths_of(const reply& r, const char* member) {
  std::vector<std::string> out;
  for (const auto& record : r.json[member].GetArray()) out.emplace_back(record["path"].GetString());
  return out;
}

TEST_F(DaemonApiTest, ListsCapturesWithTheirAttributes) {
  auto d = start();
  const reply all = d->request("GET", "/v1/captures");
  ASSERT_EQ(all.status, 200) << all.body;
  ASSERT_EQ(all.json["captures"].Size(), 3U);
  const auto& first = all.json["captures"][0];
  EXPECT_STREQ(first["path"].GetString(), capture(1001).c_str());
  EXPECT_STREQ(first["key"].GetString(), "h1001");
  EXPECT_EQ(first["creation_ts"].GetUint64(), 1001U);
  EXPECT_EQ(first["start_ts"].GetUint64(), 1001000000000U);
  EXPECT_EQ(first["end_ts"].GetUint64(), 1001500000000U);
  EXPECT_EQ(first["file_size"].GetUint64(), 4096U);
  EXPECT_FALSE(first["pending_deletion"].GetBool());

  // A capture written while the daemon runs shows up with its attributes.
  write_capture(capture(1004), 8192, faitra_e2e::attributes(1004));
  EXPECT_TRUE(faitra_test::wait_until([&] {
    const reply r = d->request("GET", "/v1/captures/lookup?path=" + capture(1004));
    return r.status == 200 && r.json["key"].IsString() && std::string(r.json["key"].GetString()) == "h1004";
  }));
  const reply live = d->request("GET", "/v1/captures/lookup?path=" + capture(1004));
  EXPECT_EQ(live.json["file_size"].GetUint64(), 8192U);
  EXPECT_EQ(live.json["start_ts"].GetUint64(), 1004000000000U);

  // The range is closed at both ends. A capture is in it when its packets
  // overlap it (1001 runs into the second range), or with match=start when
  // its first packet lies in it.
  const reply range = d->request("GET", "/v1/captures?start=1002000000000&end=1003000000000");
  ASSERT_EQ(range.status, 200) << range.body;
  EXPECT_EQ(paths_of(range, "captures"), (std::vector<std::string>{capture(1002), capture(1003)}));
  const reply two = d->request("GET", "/v1/captures?start=1001000000001&end=1002000000000");
  EXPECT_EQ(paths_of(two, "captures"), (std::vector<std::string>{capture(1001), capture(1002)}));
  EXPECT_EQ(two.json["skipped"].GetUint64(), 0U);
  const reply one = d->request("GET", "/v1/captures?start=1001000000001&end=1002000000000&match=start");
  EXPECT_EQ(paths_of(one, "captures"), (std::vector<std::string>{capture(1002)}));
  const reply limited = d->request("GET", "/v1/captures?limit=2");
  EXPECT_EQ(paths_of(limited, "captures"), (std::vector<std::string>{capture(1001), capture(1002)}));

  EXPECT_EQ(d->request("GET", "/v1/captures/lookup?path=" + _fs.file("none.pcap")).status, 404);

  struct statvfs fs {};
  ASSERT_EQ(::statvfs(_fs.path().c_str(), &fs), 0);
  const reply storage = d->request("GET", "/v1/storage");
  ASSERT_EQ(storage.status, 200) << storage.body;
  EXPECT_EQ(storage.json["disk_space"]["total"].GetUint64(), fs.f_bsize * fs.f_blocks);
  EXPECT_GT(storage.json["disk_space"]["used"].GetUint64(), 0U);
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApiTest, DeletesByPathByRangeAndEverything) {
  auto d = start();
  reply r = d->request("DELETE", "/v1/captures?path=" + capture(1001));
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_TRUE(r.json["marked"].GetBool());
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().count(capture(1001)) == 0; }));
  EXPECT_FALSE(faitra_e2e::exists(capture(1001)));

  r = d->request("DELETE", "/v1/captures?start=1002000000000&end=1002000000000");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(paths_of(r, "marked"), (std::vector<std::string>{capture(1002)}));
  EXPECT_TRUE(r.json["marked"][0]["pending_deletion"].GetBool());

  r = d->request("DELETE", "/v1/captures?start=1003&end=1003&by=creation");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(paths_of(r, "marked"), (std::vector<std::string>{capture(1003)}));
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().empty(); }));
  EXPECT_FALSE(faitra_e2e::exists(capture(1002)));
  EXPECT_FALSE(faitra_e2e::exists(capture(1003)));

  write_capture(capture(1004), 4096, faitra_e2e::attributes(1004));
  write_capture(capture(1005), 4096, faitra_e2e::attributes(1005));
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().size() == 2; }));
  r = d->request("DELETE", "/v1/captures?all=true");
  ASSERT_EQ(r.status, 200) << r.body;
  EXPECT_EQ(r.json["marked"].GetUint64(), 2U);
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().empty(); }));
  EXPECT_FALSE(faitra_e2e::exists(capture(1004)));
  EXPECT_TRUE(
      faitra_test::wait_until([&] { return d->metric("faitra_captures_deleted_total{reason=\"request\"}") == 5; }));
  EXPECT_EQ(d->metric("faitra_captures_deleted_total{reason=\"cleanup\"}"), 0);
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApiTest, BadInputIsRefusedAndChangesNothing) {
  const std::string marker = _scratch.file("meta.out");
  const std::string script = metadata_script("echo \"$1 $2\" >> " + marker + "\n");
  auto d = start({"--metadata-cleanup-cmd", script});
  const auto before = d->catalogue();
  ASSERT_EQ(before.size(), 3U);

  struct bad_case {
    const char* method;
    std::string target;
    std::string body;
    int status;
    const char* message;  // part of the error text
  };
  const std::string big(70 * 1024, ' ');
  const std::vector<bad_case> cases = {
      {"GET", "/v1/captures?start=abc&end=5", "", 400, "is not a time"},
      {"GET", "/v1/captures?start=-1&end=5", "", 400, "negative"},
      {"GET", "/v1/captures?start=18446744073709551616&end=5", "", 400, "64 bits"},
      {"GET", "/v1/captures?start=1%2B2&end=5", "", 400, "is not a time"},
      {"GET", "/v1/captures?start=5", "", 400, "together"},
      {"GET", "/v1/captures?start=9&end=5", "", 400, "after end"},
      {"GET", "/v1/captures?limit=0", "", 400, "limit"},
      {"GET", "/v1/captures?start=1&end=2&bogus=1", "", 400, "unknown parameter"},
      {"GET", "/v1/captures?start=1&start=2&end=3", "", 400, "more than once"},
      {"GET", "/v1/captures/lookup", "", 400, "path"},
      {"GET", "/v1/storage?x=1", "", 400, "unknown parameter"},
      {"GET", "/v1/nothing", "", 404, "no such endpoint"},
      {"PATCH", "/v1/status", "{}", 405, "not allowed"},
      {"DELETE", "/v1/captures", "", 400, "exactly one"},
      {"DELETE", "/v1/captures?path=" + capture(1001) + "&all=true", "", 400, "exactly one"},
      {"DELETE", "/v1/captures?all=false", "", 400, "all must be true"},
      {"DELETE", "/v1/captures?all=true&by=start", "", 400, "time range"},
      {"DELETE", "/v1/captures?start=1&end=2&by=size", "", 400, "start or creation"},
      {"DELETE", "/v1/captures?start=5&end=1", "", 400, "after end"},
      {"DELETE", "/v1/captures?start=1x&end=2", "", 400, "is not a time"},
      {"DELETE", "/v1/captures?start=0&end=18446744073709551616", "", 400, "64 bits"},
      {"DELETE", "/v1/captures?path=", "", 400, "empty"},
      {"DELETE", "/v1/captures?path=cap1001.pcap", "", 404, "no capture"},
      {"POST", "/v1/cleanup/age", R"({"mode": "everything", "cutoff": 99999})", 400, "mode"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files"})", 400, "missing member"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": -1})", 400, "non-negative"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 1.5e6})", 400, "non-negative"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": "99999"})", 400, "non-negative"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 18446744073709551616})", 400, "fits 64 bits"},
      {"POST", "/v1/cleanup/age", R"({"mode": "both", "cutoff": 18446744074})", 400, "nanoseconds"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 99999, "force": true})", 400, "unknown member"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 99999, "cutoff": 1})", 400, "more than once"},
      {"POST", "/v1/cleanup/age", R"(["files", 99999])", 400, "JSON object"},
      {"POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 99999)", 400, "malformed JSON"},
      {"POST", "/v1/cleanup/age", "", 400, "malformed JSON"},
      {"POST", "/v1/cleanup/age", big, 413, "larger than"},
      {"POST", "/v1/cleanup/age?mode=files", R"({"mode": "files", "cutoff": 99999})", 400, "unknown parameter"},
      {"POST", "/v1/cleanup/metadata", R"({"start": 9, "end": 5})", 400, "after end"},
      {"POST", "/v1/cleanup/metadata", R"({"start": 1})", 400, "missing member"},
      {"POST", "/v1/cleanup/metadata", R"({"start": -1, "end": 5})", 400, "non-negative"},
      {"PUT", "/v1/cleanup/metadata/automatic", R"({"enabled": "no"})", 400, "true or false"},
      {"PUT", "/v1/cleanup/metadata/automatic", R"({})", 400, "missing member"},
      {"POST", "/v1/reconcile", R"({"now": true})", 400, "unknown member"},
  };
  for (const bad_case& c : cases) {
    SCOPED_TRACE(std::string(c.method) + " " + c.target + " " + c.body.substr(0, 80));
    const reply r = d->request(c.method, c.target, c.body);
    EXPECT_EQ(r.status, c.status) << r.body;
    ASSERT_TRUE(r.json.IsObject() && r.json.HasMember("error") && r.json["error"].IsString()) << r.body;
    EXPECT_NE(std::string(r.json["error"].GetString()).find(c.message), std::string::npos) << r.body;
  }

  // Nothing changed: every file is there, the catalogue is as it was, no
  // cleanup ran its command, the automatic metadata step is still on. A
  // reconcile (which waits behind any deletion the tracker would see) makes
  // sure no deletion is still on its way.
  EXPECT_EQ(d->request("POST", "/v1/reconcile", "").status, 200);
  EXPECT_EQ(d->catalogue(), before);
  for (unsigned long n : {1001UL, 1002UL, 1003UL}) EXPECT_TRUE(faitra_e2e::exists(capture(n)));
  EXPECT_FALSE(faitra_e2e::exists(marker));
  const reply status = d->request("GET", "/v1/status");
  EXPECT_TRUE(status.json["automatic_metadata_cleanup"].GetBool());
  EXPECT_EQ(d->metric("faitra_delete_queue"), 0);
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApiTest, CleanupsRunTheMetadataCommandWithTheirRange) {
  const std::string out = _scratch.file("meta.out");
  const std::string script = metadata_script("echo \"$1 $2\" >> " + out + "\n");
  auto d = start({"--metadata-cleanup-cmd", script});

  EXPECT_EQ(d->request("POST", "/v1/cleanup/metadata", R"({"start": 5, "end": 18446744073709551615})").status, 202);
  EXPECT_TRUE(faitra_test::wait_until([&] { return faitra_e2e::read_text(out) == "5 18446744073709551615\n"; }))
      << faitra_e2e::read_text(out);

  // Metadata only: cut-off in seconds, the command gets nanoseconds; no file
  // goes.
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "metadata", "cutoff": 1002})").status, 202);
  EXPECT_TRUE(faitra_test::wait_until(
      [&] { return faitra_e2e::read_text(out) == "5 18446744073709551615\n0 1002000000000\n"; }));
  EXPECT_EQ(d->catalogue().size(), 3U);

  // Files only: the captures created at or before the cut-off go, the
  // command is not run.
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": 1001})").status, 202);
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(capture(1001)); }));
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->catalogue().size() == 2; }));

  // Both: metadata first, then the files.
  EXPECT_EQ(d->request("POST", "/v1/cleanup/age", R"({"mode": "both", "cutoff": 1002})").status, 202);
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(capture(1002)); }));
  EXPECT_EQ(faitra_e2e::read_text(out), "5 18446744073709551615\n0 1002000000000\n0 1002000000000\n");
  EXPECT_TRUE(faitra_e2e::exists(capture(1003)));
  EXPECT_TRUE(
      faitra_test::wait_until([&] { return d->metric("faitra_captures_deleted_total{reason=\"cleanup\"}") == 2; }));

  const reply off = d->request("PUT", "/v1/cleanup/metadata/automatic", R"({"enabled": false})");
  EXPECT_EQ(off.status, 200);
  EXPECT_FALSE(d->request("GET", "/v1/status").json["automatic_metadata_cleanup"].GetBool());
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApiTest, AFailingMetadataCommandIsReportedWithItsErrorText) {
  const std::string script = metadata_script("echo 'metadata store unreachable' >&2\nexit 3\n");
  auto d = start({"--metadata-cleanup-cmd", script});
  EXPECT_EQ(d->request("POST", "/v1/cleanup/metadata", R"({"start": 7, "end": 9})").status, 202);
  EXPECT_TRUE(d->wait_log("could not cleanup all or some metadata in range 7-9: metadata store unreachable"));
  EXPECT_TRUE(faitra_test::wait_until([&] { return d->metric("faitra_metadata_cleanup_failures_total") == 1; }));
  EXPECT_EQ(d->stop(), 0);
}

TEST_F(DaemonApiTest, ClientSubcommandsPrintTablesAndJson) {
  auto d = start();
  auto [code, out] = faitra_e2e::run_client({"ls", "--listen", d->listen()});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("PATH"), std::string::npos) << out;
  EXPECT_NE(out.find(capture(1002)), std::string::npos) << out;
  EXPECT_NE(out.find("h1003"), std::string::npos) << out;

  std::tie(code, out) =
      faitra_e2e::run_client({"ls", "--listen", d->listen(), "--json", "--start", "1003000000000", "--end",
                              "1003000000000"});
  EXPECT_EQ(code, 0);
  rapidjson::Document doc;
  doc.Parse(out.c_str());
  ASSERT_TRUE(doc.IsObject()) << out;
  ASSERT_EQ(doc["captures"].Size(), 1U);
  EXPECT_STREQ(doc["captures"][0]["path"].GetString(), capture(1003).c_str());

  std::tie(code, out) = faitra_e2e::run_client({"df", "--listen", d->listen()});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("USE%"), std::string::npos) << out;
  std::tie(code, out) = faitra_e2e::run_client({"status", "--listen", d->listen()});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("captures"), std::string::npos) << out;

  std::tie(code, out) = faitra_e2e::run_client({"rm", "--listen", d->listen(), capture(1001)});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("marked for deletion: " + capture(1001)), std::string::npos) << out;
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(capture(1001)); }));
  EXPECT_EQ(faitra_e2e::run_client({"rm", "--listen", d->listen(), _fs.file("nothing.pcap")}).first, 1);

  std::tie(code, out) = faitra_e2e::run_client(
      {"rm", "--listen", d->listen(), "--start", "1002", "--end", "1002", "--by", "creation"});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find(capture(1002)), std::string::npos) << out;
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(capture(1002)); }));

  EXPECT_EQ(faitra_e2e::run_client({"cleanup", "--listen", d->listen(), "--age", "1003", "--mode", "files"}).first, 0);
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(capture(1003)); }));
  EXPECT_NE(faitra_e2e::run_client({"cleanup", "--listen", d->listen(), "--age", "1", "--mode", "bogus"}).first, 0);
  EXPECT_EQ(
      faitra_e2e::run_client({"metadata-cleanup", "--listen", d->listen(), "--start", "1", "--end", "2"}).first, 0);
  EXPECT_EQ(faitra_e2e::run_client({"metadata-cleanup", "--listen", d->listen(), "--automatic", "off"}).first, 0);
  EXPECT_FALSE(d->request("GET", "/v1/status").json["automatic_metadata_cleanup"].GetBool());
  std::tie(code, out) = faitra_e2e::run_client({"reconcile", "--listen", d->listen()});
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("added 0, removed 0, updated 0"), std::string::npos) << out;
  EXPECT_EQ(d->stop(), 0);
  EXPECT_EQ(faitra_e2e::run_client({"status", "--listen", d->listen()}).first, 1);  // nobody listens
}

}  // namespace
