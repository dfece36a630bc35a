// `faitra gen` and `faitra scan` as the real binary on real directories:
// gen's files are read back by tcpdump and checked against their extended
// attributes; scan's lines are checked against the files.
#include "daemon_harness.hpp"

#include <faitra/host/record_json.hpp>

#include <sys/xattr.h>

#include <filesystem>
#include <set>

namespace faitra_e2e {
namespace {

using faitra_test::temp_dir;

std::string xattr(const std::string& path, const char* name) {
  char buffer[256];
  const ssize_t n = ::getxattr(path.c_str(), name, buffer, sizeof buffer);
  return n < 0 ? "<absent>" : std::string(buffer, static_cast<size_t>(n));
}
std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

// The packet timestamps (nanoseconds, as text) tcpdump reads from a capture;
// fails the test on anything but Ethernet/IPv4/UDP.
std::vector<std::string> packet_times(const std::string& path) {
  std::vector<std::string> times;
  FILE* out = ::popen(("tcpdump -r '" + path + "' -n -tt --time-stamp-precision=nano 2>/dev/null").c_str(), "r");
  char line[512];
  while (out != nullptr && std::fgets(line, sizeof line, out) != nullptr) {
    const std::string text = line;
    EXPECT_NE(text.find(" IP 10.0.0.1."), std::string::npos) << text;
    EXPECT_NE(text.find(": UDP, length "), std::string::npos) << text;
    times.push_back(text.substr(0, text.find('.')) + text.substr(text.find('.') + 1, 9));
  }
  EXPECT_EQ(out != nullptr ? ::pclose(out) : -1, 0) << path << " is not a capture tcpdump reads";
  return times;
}

run_result gen(const std::string& dir, const std::string& count, const std::string& size,
               std::vector<std::string> extra = {}) {
  extra.insert(extra.begin(), {"gen", dir, "--count", count, "--size", size, "--start-time", "1700000000s"});
  return run(extra);
}

TEST(Gen, WritesCapturesWhoseAttributesMatchWhatTcpdumpReadsInTimeOrder) {
  temp_dir dir("faitra-e2e");
  ASSERT_EQ(gen(dir.path(), "3", "64K", {"--rate", "0"}).status, 0);
  ASSERT_EQ(gen(dir.path(), "1", "1001", {"--prefix", "odd", "--quiet"}).status, 0);
  // 1 MiB holds over a thousand packets: at a million files a second that
  // leaves less than a nanosecond per packet.
  ASSERT_EQ(gen(dir.path(), "2", "1M", {"--prefix", "tight", "--rate", "1000000", "--quiet"}).status, 0);
  std::map<std::string, unsigned long long> last_end;  // per name prefix: names sort in time order
  std::set<std::string> hashes;
  for (const std::string& path : files_in(dir.path())) {
    SCOPED_TRACE(path);
    const auto times = packet_times(path);
    ASSERT_FALSE(times.empty());
    EXPECT_EQ(xattr(path, "user.pcap_start_ts"), times.front());
    EXPECT_EQ(xattr(path, "user.pcap_end_ts"), times.back());
    EXPECT_EQ(xattr(path, "user.pcap_creation_ts"), times.front().substr(0, times.front().size() - 9));
    EXPECT_TRUE(hashes.insert(xattr(path, "user.pcap_hash")).second) << "a repeated hash";
    const std::string prefix = std::filesystem::path(path).filename().string().substr(0, 3);
    EXPECT_EQ(std::filesystem::file_size(path), prefix == "odd" ? 1001u : prefix == "tig" ? 1048576u : 65536u);
    for (const std::string& t : times) {
      EXPECT_GT(std::stoull(t), last_end[prefix]) << "packets in time order, files one after another";
      last_end[prefix] = std::stoull(t);
    }
  }
}

// The line scan must print for a capture: its record, members in the
// record's order, read back from the file itself.
std::string scan_line(const std::string& path) {
  const bool keyed = xattr(path, "user.pcap_hash") != "<absent>";
  struct stat status {};
  ::stat(path.c_str(), &status);
  auto number = [&](const char* name) { return keyed ? xattr(path, name) : "null"; };
  return "{\"path\":\"" + path + "\",\"key\":" + (keyed ? "\"" + xattr(path, "user.pcap_hash") + "\"" : "null") +
         ",\"creation_ts\":" + (keyed ? xattr(path, "user.pcap_creation_ts") : std::to_string(status.st_mtime)) +
         ",\"start_ts\":" + number("user.pcap_start_ts") + ",\"end_ts\":" + number("user.pcap_end_ts") +
         ",\"file_size\":" + std::to_string(status.st_size) + ",\"pending_deletion\":false}\n";
}

TEST(Scan, PrintsEachCaptureOnceInPathOrderAsTheRecordItsFileGives) {
  temp_dir parent("faitra-e2e");
  const std::string a = parent.file("a"), ab = parent.file("a-b");  // "a-b/..." sorts before "a/..."
  for (const std::string& d : {a, ab, a + "/sub.pcap.d"}) std::filesystem::create_directory(d);
  for (const std::string& d : {a, ab, a + "/sub.pcap.d"}) ASSERT_EQ(gen(d, "2", "8K").status, 0);
  faitra_test::write_and_close(a + "/notes.txt", 10);
  faitra_test::write_and_close(a + "/zz-unfinished.pcapng", 300);  // no attributes yet
  const run_result r = run({"scan", a + "/", ab, a + "/"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::string expected;
  for (const std::string& d : {ab, a}) {
    for (const std::string& path : files_in(d)) {
      if (path.ends_with(".pcap") || path.ends_with(".pcapng")) expected += scan_line(path);
    }
  }
  EXPECT_EQ(r.out, expected);
  // Suffixes given replace the default ones.
  EXPECT_EQ(run({"scan", "--suffix", ".txt", "--suffix", ".pcapng", a}).out,
            scan_line(a + "/notes.txt") + scan_line(a + "/zz-unfinished.pcapng"));
}

TEST(Scan, ListsMalformedAttributesAsAbsentReportsThemAndFailsOnWhatIsNotADirectory) {
  temp_dir dir("faitra-e2e");
  ASSERT_EQ(gen(dir.path(), "3", "4K").status, 0);
  const auto files = files_in(dir.path());
  std::string expected[3] = {scan_line(files[0]), scan_line(files[1]), scan_line(files[2])};
  auto replace = [](std::string& line, const std::string& field, const std::string& value) {
    const size_t at = line.find("\"" + field + "\":") + field.size() + 3;
    line.replace(at, line.find(',', at) - at, value);
  };
  faitra_test::set_xattr(files[0], "user.pcap_start_ts", "yesterday");
  faitra_test::set_xattr(files[1], "user.pcap_creation_ts", "99999999999999999999999");
  struct stat status {};
  ASSERT_EQ(::stat(files[1].c_str(), &status), 0);
  replace(expected[0], "start_ts", "null");
  replace(expected[1], "creation_ts", std::to_string(status.st_mtime));  // the modification time instead
  const run_result r = run({"scan", dir.path()});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, expected[0] + expected[1] + expected[2]);
  for (const auto& [file, value] : {std::pair{files[0], "yesterday"}, {files[1], "99999999999999999999999"}}) {
    EXPECT_NE(r.err.find(file + ": "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(value), std::string::npos) << r.err;
  }
  const run_result missing = run({"scan", dir.path(), dir.file("nowhere")});
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.out, "");
  EXPECT_NE(missing.err.find(dir.file("nowhere")), std::string::npos) << missing.err;
  EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;
  const run_result file = run({"scan", files[2]});
  EXPECT_EQ(file.status, 1);
  EXPECT_NE(file.err.find("not a directory"), std::string::npos) << file.err;
}

// faitra scan renders records itself; its lines must be the record's own
// JSON form, escapes included, for every byte a path or key can hold.
TEST(Scan, RendersRecordsExactlyAsTheirJsonForm) {
  std::string every_byte;
  for (int c = 0; c < 256; ++c) every_byte += static_cast<char>(c);
  csl::fs_entry full("/d/" + every_byte);
  full.key = "k\"\\" + every_byte;
  full.creation_ts = 18446744073709551615UL;
  full.start_ts = 0UL;
  full.end_ts = 7UL;
  full.file_size = 42;
  full.deletion.store(csl::fs_entry::deletion_by::cleanup);
  for (const csl::fs_entry& record : {full, csl::fs_entry(), csl::fs_entry("/plain.pcap")}) {
    std::string line;
    faitra_host::append_record_json(line, record);
    EXPECT_EQ(line, record.to_json_str());
  }
}

}  // namespace
}  // namespace faitra_e2e
