// The directory reader on real directories with real extended attributes, on
// the default temporary file system and on a freshly mounted tmpfs.
#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>

#include <cdl/exception.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace {

using csl::fs_entry;
using faitra_test::is_capture_name;
using faitra_test::set_xattr;
using faitra_test::text_of;

const std::string HASH = "user.pcap_hash", START = "user.pcap_start_ts", END = "user.pcap_end_ts",
                  CREATION = "user.pcap_creation_ts";

// One scan: the records each callback saw, by path, and the cache.
struct scan {
  std::map<std::string, fs_entry> missing, empty;
  csl::fs_cache cache;
  explicit scan(const std::string& dir, csl::fs_reader::filter_type filter = is_capture_name) {
    csl::fs_reader reader(std::move(filter), 236, HASH, START, END, CREATION, {}, nullptr);
    reader.collect_files(
        dir, cache, [this](fs_entry& e) { missing.emplace(e.path, e); },
        [this](fs_entry& e) { empty.emplace(e.path, e); });
  }
};

// The same tests on $TMPDIR's file system and on tmpfs.
class FsReader : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    if (GetParam()) {
      _mount = std::make_unique<faitra_test::tmpfs_mount>(16UL << 20);
      if (!_mount->mounted()) GTEST_SKIP() << _mount->reason();
      _dir = _mount->path();
    } else {
      _temp = std::make_unique<faitra_test::temp_dir>();
      _dir = _temp->path();
    }
  }
  std::string file(const std::string& name) const { return _dir + "/" + name; }

  std::unique_ptr<faitra_test::tmpfs_mount> _mount;
  std::unique_ptr<faitra_test::temp_dir> _temp;
  std::string _dir;
};

TEST_P(FsReader, AttributeValuesSizesAndCallbacks) {
  const std::string max_hash(255, 'h');
  const struct {
    std::string name;
    unsigned long size;
    std::map<std::string, std::string> xattrs;
    std::string expected;  // key start end creation
    const char* callback;
  } cases[] = {
      {"full.pcap", 4096, {{HASH, "k1"}, {START, "100"}, {END, "200"}, {CREATION, "1700000000"}},
       "k1 100 200 1700000000", ""},
      // Without a creation attribute: the modification time, whole seconds.
      {"no-creation.pcap", 4096, {{HASH, max_hash}, {START, "1"}}, max_hash + " 1 <null> 1600000000", ""},
      {"too-long.pcap", 4096, {{HASH, max_hash + "h"}, {START, "5"}}, "<null> 5 <null> 1600000000", "missing"},
      {"empty-value.pcap", 4096, {{HASH, ""}, {START, ""}}, "<null> <null> <null> 1600000000", "missing"},
      {"bare-tiny.pcap", 0, {}, "<null> <null> <null> 1600000000", "missing"},
      {"no-hash.pcap", 4096, {{START, "10"}, {END, "20"}, {CREATION, "30"}}, "<null> 10 20 30", "missing"},
      // The empty-file limit is 236 bytes, inclusive.
      {"size-236.pcap", 236, {{HASH, "k4"}}, "k4 <null> <null> 1600000000", "empty"},
      {"size-237.pcap", 237, {{HASH, "k5"}}, "k5 <null> <null> 1600000000", ""},
  };
  for (const auto& c : cases) {
    faitra_test::write_and_close(file(c.name), c.size);
    for (const auto& [name, value] : c.xattrs) set_xattr(file(c.name), name, value);
    const timespec times[2] = {{1600000000, 999999999}, {1600000000, 999999999}};
    ASSERT_EQ(::utimensat(AT_FDCWD, file(c.name).c_str(), times, 0), 0);
  }
  scan s(_dir);
  EXPECT_EQ(s.cache.size(), std::size(cases));  // reported records are inserted too
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs_entry e;
    ASSERT_TRUE(s.cache.by_path(e, file(c.name)));
    EXPECT_EQ(text_of(e.key) + " " + text_of(e.start_ts) + " " + text_of(e.end_ts) + " " +
                  std::to_string(e.creation_ts),
              c.expected);
    EXPECT_EQ(e.file_size, c.size);
    EXPECT_EQ(s.missing.count(file(c.name)), std::string(c.callback) == "missing" ? 1u : 0u);
    EXPECT_EQ(s.empty.count(file(c.name)), std::string(c.callback) == "empty" ? 1u : 0u);
    // A callback receives the loaded record.
    for (auto* reported : {&s.missing, &s.empty}) {
      if (reported->count(file(c.name)) != 0) {
        EXPECT_EQ(reported->at(file(c.name)).to_str(), e.to_str());
      }
    }
  }
}

TEST_P(FsReader, TheFilterAloneDecidesOnEveryEntryByBareName) {
  faitra_test::write_and_close(file("a.pcap"), 10);
  faitra_test::write_and_close(file("notes.txt"), 10);
  ASSERT_EQ(::mkdir(file("sub").c_str(), 0755), 0);
  std::set<std::string> seen;
  scan captures(_dir + "/", [&](const std::string& name) {
    seen.insert(name);
    return is_capture_name(name);
  });
  EXPECT_EQ(seen, (std::set<std::string>{".", "..", "a.pcap", "notes.txt", "sub"}));
  std::set<std::string> cached;
  for (const auto& [path, r] : faitra_test::contents(captures.cache)) cached.insert(path);
  EXPECT_EQ(cached, std::set<std::string>{_dir + "//a.pcap"});  // directory + "/" + name, nothing removed

  // Directories (".", ".." included) pass when the filter lets them.
  scan everything(_dir, [](const std::string&) { return true; });
  EXPECT_EQ(everything.cache.size(), 5u);
  EXPECT_EQ(everything.missing.count(_dir + "/.."), 1u);
}

TEST_P(FsReader, UnopenableDirectoryAndMalformedNumbersRaise) {
  faitra_test::write_and_close(file("plain.pcap"), 10);
  for (const std::string& dir : {file("missing"), file("plain.pcap")}) {
    try {
      scan s(dir);
      ADD_FAILURE() << dir << ": no exception";
    } catch (const cdl::exception& e) {
      EXPECT_STREQ(e.what(), "Unable to open the file folder.");
      EXPECT_EQ(e.file(), "fs_reader.cpp");
    }
  }
  const std::pair<std::string, std::string> cases[] = {
      {START, "abc is not a number."},
      {END, "-1 is not in range. It must be between 0 and 18446744073709551615"},
  };
  for (const auto& [attribute, message] : cases) {
    set_xattr(file("plain.pcap"), HASH, "k");
    set_xattr(file("plain.pcap"), attribute, message.substr(0, message.find(' ')));
    try {
      scan s(_dir);
      ADD_FAILURE() << attribute << ": no exception";
    } catch (const cdl::exception& e) {
      EXPECT_EQ(e.what(), message);
    }
    ASSERT_EQ(::removexattr(file("plain.pcap").c_str(), attribute.c_str()), 0);
  }
}

TEST_P(FsReader, LoadAttributesLeavesTheRecordAloneWhenStatFails) {
  fs_entry e(file("gone.pcap"));
  e.creation_ts = 7;
  e.file_size = 9;
  csl::fs_reader reader(is_capture_name, 236, HASH, START, END, CREATION, {}, nullptr);
  EXPECT_FALSE(reader.load_attributes(e));
  EXPECT_EQ(e.creation_ts, 7u);
  EXPECT_EQ(e.file_size, 9u);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, FsReader, ::testing::Values(false, true),
                         [](const auto& info) { return std::string(info.param ? "Tmpfs" : "TempDir"); });

}  // namespace
