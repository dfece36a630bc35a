// The directory reader on a real directory with real extended attributes:
// what each file's record holds, which callback reports it, and that the
// filter alone decides which entries are read. Unreadable directories and
// malformed numbers are the scan tests' business (tests/e2e/tools_test.cpp).
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>

#include "support/catalogue_env.hpp"

#include <gtest/gtest.h>

#include <dirent.h>

#include <map>
#include <memory>
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

// A large directory is scanned on two threads; callbacks and inserts still
// follow the directory order (the newest capture of a shared key holds it),
// and a malformed attribute stops the scan exactly at its record.
TEST(FsReader, LargeDirectoriesKeepDirectoryOrderUpToAMalformedRecord) {
  faitra_test::temp_dir dir;
  const std::string HASH = "user.pcap_hash", START = "user.pcap_start_ts";
  for (int i = 0; i < 600; ++i) {
    const std::string path = dir.file("c" + std::to_string(i) + ".pcap");
    faitra_test::write_and_close(path, i % 3 == 0 ? 10 : 4096);
    if (i % 2 == 0) faitra_test::set_xattr(path, HASH, "k" + std::to_string(i % 7));
  }
  std::vector<std::string> order;  // getdents64 order, as readdir gives it
  std::unique_ptr<DIR, int (*)(DIR*)> d(::opendir(dir.path().c_str()), ::closedir);
  while (const dirent* ent = ::readdir(d.get())) {
    if (faitra_test::is_capture_name(ent->d_name)) order.push_back(dir.file(ent->d_name));
  }
  auto collect = [&](std::vector<std::string>& calls, csl::fs_cache& cache) {
    csl::fs_reader reader(faitra_test::is_capture_name, 236, HASH, START, "user.pcap_end_ts",
                          "user.pcap_creation_ts", {}, nullptr);
    reader.collect_files(
        dir.path(), cache, [&](csl::fs_entry& e) { calls.push_back("missing " + e.path); },
        [&](csl::fs_entry& e) { calls.push_back("empty " + e.path); });
  };
  std::map<std::string, std::string> holders;
  auto expected = [&](size_t count) {  // the callbacks of the first `count` records in directory order
    std::vector<std::string> calls;
    for (size_t n = 0; n < count; ++n) {
      const int i = std::stoi(order[n].substr(order[n].rfind('/') + 2));
      if (i % 2 != 0) {
        calls.push_back("missing " + order[n]);
      } else {
        if (i % 3 == 0) calls.push_back("empty " + order[n]);
        holders["k" + std::to_string(i % 7)] = order[n];
      }
    }
    return calls;
  };
  std::vector<std::string> calls;
  csl::fs_cache cache;
  collect(calls, cache);
  EXPECT_EQ(calls, expected(order.size()));
  std::map<std::string, std::string> held;
  for (const csl::fs_entry* e : cache.key_cache()) held[*e->key] = e->path;
  EXPECT_EQ(held, holders);

  faitra_test::set_xattr(order[400], START, "abc");
  calls.clear();
  csl::fs_cache partial;
  EXPECT_THROW(collect(calls, partial), cdl::exception);
  EXPECT_EQ(partial.size(), 400u);
  for (size_t i = 0; i < order.size(); ++i) EXPECT_EQ(partial.path_exists(order[i]), i < 400) << i;
  EXPECT_EQ(calls, expected(400));
}

}  // namespace
