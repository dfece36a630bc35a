// The directory reader on a real directory with real extended attributes:
// what each file's record holds, which callback reports it, and that the
// filter alone decides which entries are read. Unreadable directories and
// malformed numbers are the scan tests' business (tests/e2e/tools_test.cpp).
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>

#include "support/catalogue_env.hpp"

#include <gtest/gtest.h>

#include <map>
#include <set>

namespace {

std::string text(const cdl::nullable<std::string>& v) { return v.is_null() ? "-" : *v; }
std::string text(const cdl::nullable<unsigned long>& v) { return v.is_null() ? "-" : std::to_string(*v); }

TEST(FsReader, ReadsAttributesAndSizesReportsWhatLacksAHashOrContentAndLetsTheFilterDecide) {
  faitra_test::temp_dir dir;
  const std::string HASH = "user.pcap_hash", START = "user.pcap_start_ts", max(255, 'h');
  const struct {
    std::string name;
    unsigned long size;
    std::map<std::string, std::string> xattrs;
    std::string expected;  // key start end creation [reported by]
  } cases[] = {
      {"full.pcap", 4096, {{HASH, "k1"}, {START, "100"}, {"user.pcap_end_ts", "200"}, {"user.pcap_creation_ts", "7"}},
       "k1 100 200 7"},
      // Without a creation attribute: the modification time, whole seconds.
      {"no-creation.pcap", 4096, {{HASH, max}, {START, "1"}}, max + " 1 - 1600000000"},
      // 255 bytes is the longest value read; longer or empty reads as absent.
      {"too-long.pcap", 4096, {{HASH, max + "h"}, {START, "5"}}, "- 5 - 1600000000 missing"},
      {"empty-value.pcap", 4096, {{HASH, ""}, {START, ""}}, "- - - 1600000000 missing"},
      // The empty-file limit is inclusive.
      {"size-236.pcap", 236, {{HASH, "k4"}}, "k4 - - 1600000000 empty"},
      {"size-237.pcap", 237, {{HASH, "k5"}}, "k5 - - 1600000000"},
  };
  for (const auto& c : cases) {
    faitra_test::write_and_close(dir.file(c.name), c.size);
    for (const auto& [name, value] : c.xattrs) faitra_test::set_xattr(dir.file(c.name), name, value);
    const timespec times[2] = {{1600000000, 999999999}, {1600000000, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, dir.file(c.name).c_str(), times, 0), 0);
  }
  faitra_test::write_and_close(dir.file("notes.txt"), 10);
  ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);

  std::set<std::string> offered;  // bare names, "." and directories included
  csl::fs_reader reader(
      [&](const std::string& name) { return offered.insert(name), faitra_test::is_capture_name(name); }, 236, HASH,
      START, "user.pcap_end_ts", "user.pcap_creation_ts", {}, nullptr);
  csl::fs_cache cache;
  std::map<std::string, std::string> reported;
  reader.collect_files(
      dir.path() + "/", cache, [&](csl::fs_entry& e) { reported[e.path] = " missing"; },
      [&](csl::fs_entry& e) { reported[e.path] = " empty"; });
  EXPECT_EQ(offered.size(), std::size(cases) + 4);
  EXPECT_TRUE(offered.count(".") && offered.count("sub") && offered.count("notes.txt"));
  EXPECT_EQ(cache.size(), std::size(cases));  // reported records are catalogued too
  for (const auto& c : cases) {
    csl::fs_entry e;
    ASSERT_TRUE(cache.by_path(e, dir.path() + "//" + c.name)) << c.name;  // directory + "/" + name, as given
    EXPECT_EQ(text(e.key) + " " + text(e.start_ts) + " " + text(e.end_ts) + " " + std::to_string(e.creation_ts) +
                  reported[e.path],
              c.expected);
    EXPECT_EQ(e.file_size, c.size) << c.name;
  }
}

}  // namespace
