// `faitra gen` and `faitra scan`, run as the real binary on real directories:
// gen's files are parsed back as pcap and checked against their extended
// attributes; scan's JSON lines are parsed and checked against the files.
#include "daemon_harness.hpp"

#include <sys/xattr.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>

namespace {

using faitra_e2e::finish;
using faitra_e2e::run;
using faitra_e2e::run_result;
using faitra_e2e::spawn;
using faitra_test::temp_dir;
using faitra_e2e::read_text;

std::string xattr(const std::string& path, const std::string& name) {
  char buffer[256];
  const ssize_t n = ::getxattr(path.c_str(), name.c_str(), buffer, sizeof(buffer));
  return n < 0 ? std::string("<absent>") : std::string(buffer, static_cast<size_t>(n));
}

uint64_t xattr_number(const std::string& path, const std::string& name) { return std::stoull(xattr(path, name)); }

std::vector<std::string> files_in(const std::string& dir) {
  std::vector<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(dir)) files.push_back(entry.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

std::string fnv1a64_hex(const std::string& bytes) {
  uint64_t hash = 0xcbf29ce484222325ULL;
  for (unsigned char c : bytes) {
    hash ^= c;
    hash *= 0x100000001b3ULL;
  }
  char text[17];
  std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(hash));
  return text;
}

template <typename T>
T host_value(const std::string& bytes, size_t offset) {
  T value{};
  std::memcpy(&value, bytes.data() + offset, sizeof(T));
  return value;
}

struct pcap_summary {
  uint64_t first_ns = 0;
  uint64_t last_ns = 0;
  size_t packets = 0;
};

// Parses a whole nanosecond pcap file; fails the test on any defect.
pcap_summary parse_pcap(const std::string& path) {
  pcap_summary summary;
  const std::string bytes = read_text(path);
  EXPECT_GE(bytes.size(), 24u) << path;
  if (bytes.size() < 24) return summary;
  EXPECT_EQ(host_value<uint32_t>(bytes, 0), 0xa1b23c4du) << path;
  EXPECT_EQ(host_value<uint16_t>(bytes, 4), 2u);
  EXPECT_EQ(host_value<uint16_t>(bytes, 6), 4u);
  const uint32_t snaplen = host_value<uint32_t>(bytes, 16);
  EXPECT_GE(snaplen, 1514u);
  EXPECT_EQ(host_value<uint32_t>(bytes, 20), 1u) << "link type Ethernet";
  size_t offset = 24;
  uint64_t previous = 0;
  while (offset < bytes.size()) {
    if (bytes.size() - offset < 16) {
      ADD_FAILURE() << path << ": truncated record header at " << offset;
      break;
    }
    const uint64_t ts = host_value<uint32_t>(bytes, offset) * 1000000000ULL + host_value<uint32_t>(bytes, offset + 4);
    EXPECT_LT(host_value<uint32_t>(bytes, offset + 4), 1000000000u);
    const uint32_t included = host_value<uint32_t>(bytes, offset + 8);
    EXPECT_EQ(included, host_value<uint32_t>(bytes, offset + 12));
    EXPECT_GE(included, 42u);
    EXPECT_LE(included, snaplen);
    if (summary.packets == 0) {
      summary.first_ns = ts;
    } else {
      EXPECT_GT(ts, previous) << path << ": packet " << summary.packets;
    }
    const size_t frame = offset + 16;
    if (bytes.size() - frame < included) {
      ADD_FAILURE() << path << ": truncated packet at " << offset;
      break;
    }
    EXPECT_EQ(static_cast<unsigned char>(bytes[frame + 12]), 0x08) << "IPv4 ethertype";
    EXPECT_EQ(static_cast<unsigned char>(bytes[frame + 14]), 0x45) << "IPv4 header";
    EXPECT_EQ(static_cast<unsigned char>(bytes[frame + 23]), 17) << "UDP";
    previous = ts;
    summary.last_ns = ts;
    ++summary.packets;
    offset = frame + included;
  }
  return summary;
}

const uint64_t START_S = 1700000000;
const uint64_t START_NS = START_S * 1000000000ULL;

run_result gen(const std::string& dir, unsigned count, const std::string& size = "64K",
               std::vector<std::string> extra = {}) {
  std::vector<std::string> args = {"gen", dir, "--count", std::to_string(count), "--size", size, "--rate", "0",
                                   "--start-time", std::to_string(START_S) + "s"};
  args.insert(args.end(), extra.begin(), extra.end());
  return run(args);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

TEST(Gen, WritesValidCapturesWhoseAttributesMatchTheirContent) {
  temp_dir dir("faitra-e2e");
  const run_result r = gen(dir.path(), 4);
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines_of(r.out).size(), 4u) << r.out;

  const std::vector<std::string> files = files_in(dir.path());
  ASSERT_EQ(files.size(), 4u);
  uint64_t previous_end = 0;
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string& path = files[i];
    SCOPED_TRACE(path);
    EXPECT_EQ(std::filesystem::file_size(path), 65536u);
    EXPECT_EQ(path.substr(path.size() - 5), ".pcap");
    const pcap_summary pcap = parse_pcap(path);
    EXPECT_GT(pcap.packets, 1u);
    EXPECT_EQ(xattr_number(path, "user.pcap_start_ts"), pcap.first_ns);
    EXPECT_EQ(xattr_number(path, "user.pcap_end_ts"), pcap.last_ns);
    EXPECT_EQ(xattr_number(path, "user.pcap_creation_ts"), pcap.first_ns / 1000000000ULL);
    EXPECT_EQ(xattr(path, "user.pcap_hash"), fnv1a64_hex(read_text(path)));
    // Path order is time order, and the files follow one another.
    if (i == 0) {
      EXPECT_EQ(pcap.first_ns, START_NS);
    } else {
      EXPECT_GT(pcap.first_ns, previous_end);
    }
    previous_end = pcap.last_ns;
  }
  EXPECT_NE(xattr(files[0], "user.pcap_hash"), xattr(files[1], "user.pcap_hash"));
}

TEST(Gen, HonoursSizeSuffixesAndOddSizes) {
  temp_dir dir("faitra-e2e");
  ASSERT_EQ(gen(dir.path(), 1, "1M", {"--prefix", "big", "--quiet"}).status, 0);
  ASSERT_EQ(gen(dir.path(), 1, "1001", {"--prefix", "odd"}).status, 0);
  const std::vector<std::string> files = files_in(dir.path());
  ASSERT_EQ(files.size(), 2u);
  EXPECT_EQ(std::filesystem::file_size(files[0]), 1048576u);
  EXPECT_EQ(std::filesystem::file_size(files[1]), 1001u);
  for (const std::string& path : files) EXPECT_EQ(xattr_number(path, "user.pcap_end_ts"), parse_pcap(path).last_ns);
}

TEST(Gen, KeepsFilesInTimeOrderWhenTheRateLeavesLessThanANanosecondPerPacket) {
  temp_dir dir("faitra-e2e");
  // 1 MiB holds over a thousand packets; at a million files per second each
  // file's span is 1000 ns.
  const run_result r = run({"gen", dir.path(), "--count", "3", "--size", "1M", "--rate", "1000000", "--quiet"});
  ASSERT_EQ(r.status, 0) << r.err;
  const std::vector<std::string> files = files_in(dir.path());
  ASSERT_EQ(files.size(), 3u);
  for (size_t i = 1; i < files.size(); ++i) {
    EXPECT_GT(parse_pcap(files[i]).first_ns, parse_pcap(files[i - 1]).last_ns) << files[i];
  }
}

TEST(Gen, RefusesBadArgumentsAndMissingDirectory) {
  temp_dir dir("faitra-e2e");
  EXPECT_NE(gen(dir.path(), 1, "99").status, 0);
  EXPECT_NE(gen(dir.path(), 1, "12X").status, 0);
  EXPECT_NE(run({"gen", dir.path(), "--start-time", "soon"}).status, 0);
  EXPECT_TRUE(files_in(dir.path()).empty());

  const run_result missing = gen(dir.file("absent"), 1);
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.err.find(dir.file("absent")), std::string::npos) << missing.err;
  EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos) << missing.err;
}

TEST(Gen, StopsAfterTheCurrentFileOnSigterm) {
  temp_dir dir("faitra-e2e");
  temp_dir scratch("faitra-e2e-out");
  const pid_t pid = spawn({"gen", dir.path(), "--count", "0", "--rate", "100", "--size", "256K", "--quiet"},
                          scratch.path());
  ASSERT_GT(pid, 0);
  ASSERT_TRUE(faitra_test::wait_until([&] { return files_in(dir.path()).size() >= 3; }));
  ASSERT_EQ(::kill(pid, SIGTERM), 0);
  const run_result r = finish(pid, scratch.path());
  EXPECT_EQ(r.status, 0) << r.err;
  // No file is left half written or without its attributes.
  const std::vector<std::string> files = files_in(dir.path());
  ASSERT_GE(files.size(), 3u);
  for (const std::string& path : files) {
    EXPECT_EQ(std::filesystem::file_size(path), 262144u) << path;
    EXPECT_EQ(xattr(path, "user.pcap_hash"), fnv1a64_hex(read_text(path))) << path;
    EXPECT_EQ(xattr_number(path, "user.pcap_end_ts"), parse_pcap(path).last_ns) << path;
  }
}

TEST(Gen, DropsCapturesThatDoNotFitAndGoesOn) {
  faitra_test::tmpfs_mount fs(3UL << 20);
  if (!fs.mounted()) GTEST_SKIP() << fs.reason();
  const run_result r = gen(fs.path(), 5, "1M");
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_NE(r.err.find("dropped"), std::string::npos) << r.err;
  const std::vector<std::string> files = files_in(fs.path());
  EXPECT_GE(files.size(), 1u);
  EXPECT_LT(files.size(), 5u);
  for (const std::string& path : files) {
    EXPECT_EQ(std::filesystem::file_size(path), 1048576u) << path;
    EXPECT_EQ(xattr(path, "user.pcap_hash"), fnv1a64_hex(read_text(path))) << path;
  }
}

// The scan line a capture written by gen must give: its record, members in
// the record's order, read back from the file itself.
std::string expected_line(const std::string& path) {
  return "{\"path\":\"" + path + "\",\"key\":\"" + xattr(path, "user.pcap_hash") +
         "\",\"creation_ts\":" + xattr(path, "user.pcap_creation_ts") + ",\"start_ts\":" +
         xattr(path, "user.pcap_start_ts") + ",\"end_ts\":" + xattr(path, "user.pcap_end_ts") +
         ",\"file_size\":" + std::to_string(std::filesystem::file_size(path)) + ",\"pending_deletion\":false}";
}

TEST(Scan, ListsEveryCaptureInPathOrderAsRecords) {
  temp_dir dir("faitra-e2e");
  ASSERT_EQ(gen(dir.path(), 3, "8K").status, 0);
  // Not captures: another suffix, and a subdirectory (never recursed into).
  faitra_test::write_and_close(dir.file("notes.txt"), 10);
  std::filesystem::create_directory(dir.file("sub.pcap.d"));
  ASSERT_EQ(gen(dir.file("sub.pcap.d"), 1, "8K").status, 0);
  // A capture the writer has not finished: no attributes yet.
  faitra_test::write_and_close(dir.file("zz-unfinished.pcapng"), 300);

  const run_result r = run({"scan", dir.path() + "/"});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.err, "");
  std::vector<std::string> expected;
  for (const std::string& path : files_in(dir.path())) {
    if (path.ends_with(".pcap")) expected.push_back(expected_line(path));
  }
  struct stat status {};
  ASSERT_EQ(::stat(dir.file("zz-unfinished.pcapng").c_str(), &status), 0);
  expected.push_back("{\"path\":\"" + dir.file("zz-unfinished.pcapng") + "\",\"key\":null,\"creation_ts\":" +
                     std::to_string(status.st_mtime) +
                     ",\"start_ts\":null,\"end_ts\":null,\"file_size\":300,\"pending_deletion\":false}");
  EXPECT_EQ(lines_of(r.out), expected);
}

TEST(Scan, ListsAFileWithAMalformedAttributeWithoutItAndReportsIt) {
  temp_dir dir("faitra-e2e");
  ASSERT_EQ(gen(dir.path(), 4, "4K").status, 0);
  const std::vector<std::string> files = files_in(dir.path());
  ASSERT_EQ(files.size(), 4u);
  std::vector<std::string> expected;
  for (const std::string& f : files) expected.push_back(expected_line(f));
  faitra_test::set_xattr(files[1], "user.pcap_start_ts", "yesterday");
  faitra_test::set_xattr(files[2], "user.pcap_creation_ts", "99999999999999999999999");
  // Each is listed with its bad attribute treated as absent: no start, and
  // the modification time as creation.
  const auto replace = [](std::string& line, const std::string& field, const std::string& value) {
    const size_t at = line.find("\"" + field + "\":") + field.size() + 3;
    line.replace(at, line.find(',', at) - at, value);
  };
  struct stat status {};
  ASSERT_EQ(::stat(files[2].c_str(), &status), 0);
  replace(expected[1], "start_ts", "null");
  replace(expected[2], "creation_ts", std::to_string(status.st_mtime));

  const run_result r = run({"scan", dir.path()});
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(lines_of(r.out), expected);
  // One line per skipped file, naming it and the cause (in directory order).
  std::vector<std::string> errors = lines_of(r.err);
  ASSERT_EQ(errors.size(), 2u) << r.err;
  std::sort(errors.begin(), errors.end());
  EXPECT_NE(errors[0].find(files[1] + ":"), std::string::npos) << r.err;
  EXPECT_NE(errors[0].find("yesterday"), std::string::npos) << r.err;
  EXPECT_NE(errors[1].find(files[2] + ":"), std::string::npos) << r.err;
  EXPECT_NE(errors[1].find("99999999999999999999999"), std::string::npos) << r.err;
}

TEST(Scan, MergesSeveralDirectoriesInPathOrderAndSuffixesReplaceTheDefault) {
  temp_dir parent("faitra-e2e");
  // "a-b/..." sorts before "a/..." although "a" < "a-b".
  std::filesystem::create_directory(parent.file("a"));
  std::filesystem::create_directory(parent.file("a-b"));
  ASSERT_EQ(gen(parent.file("a"), 1, "4K").status, 0);
  ASSERT_EQ(gen(parent.file("a-b"), 1, "4K").status, 0);
  const run_result r = run({"scan", parent.file("a"), parent.file("a-b"), parent.file("a")});
  ASSERT_EQ(r.status, 0) << r.err;
  const auto listed = lines_of(r.out);
  ASSERT_EQ(listed.size(), 2u) << r.out;
  EXPECT_EQ(listed[0], expected_line(files_in(parent.file("a-b"))[0]));
  EXPECT_EQ(listed[1], expected_line(files_in(parent.file("a"))[0]));

  faitra_test::write_and_close(parent.file("a/one.cap"), 10);
  faitra_test::write_and_close(parent.file("a/two.dump"), 10);
  const run_result suffixes = run({"scan", "--suffix", ".cap", "--suffix", ".dump", parent.file("a")});
  ASSERT_EQ(suffixes.status, 0) << suffixes.err;
  const auto other = lines_of(suffixes.out);
  ASSERT_EQ(other.size(), 2u) << suffixes.out;
  EXPECT_EQ(other[0].rfind("{\"path\":\"" + parent.file("a/one.cap") + "\"", 0), 0u) << other[0];
  EXPECT_EQ(other[1].rfind("{\"path\":\"" + parent.file("a/two.dump") + "\"", 0), 0u) << other[1];
}

TEST(Scan, FailsClearlyOnAMissingDirectory) {
  temp_dir dir("faitra-e2e");
  const run_result r = run({"scan", dir.path(), dir.file("nowhere")});
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_NE(r.err.find(dir.file("nowhere")), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("No such file or directory"), std::string::npos) << r.err;

  faitra_test::write_and_close(dir.file("plain.pcap"), 10);
  const run_result file = run({"scan", dir.file("plain.pcap")});
  EXPECT_EQ(file.status, 1);
  EXPECT_NE(file.err.find("not a directory"), std::string::npos) << file.err;
}

}  // namespace
