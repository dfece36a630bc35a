// The directory reader on real directories with real extended attributes,
// on the default temporary file system and on a freshly mounted tmpfs.
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

using csl::fs_cache;
using csl::fs_entry;
using csl::fs_reader;
using faitra_test::is_capture_name;
using faitra_test::set_xattr;
using faitra_test::text_of;
using faitra_test::write_file;

const std::string HASH = "user.pcap_hash";
const std::string START = "user.pcap_start_ts";
const std::string END = "user.pcap_end_ts";
const std::string CREATION = "user.pcap_creation_ts";

std::unique_ptr<fs_reader> make_reader(fs_reader::filter_type filter = is_capture_name,
                                       fs_reader::entry_callback on_loaded = {}) {
  return std::make_unique<fs_reader>(std::move(filter), 236, HASH, START, END, CREATION, std::move(on_loaded),
                                     nullptr);
}

void set_mtime(const std::string& path, time_t seconds, long nanoseconds) {
  const timespec times[2] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// One scan: the records each callback saw, by path, and the cache.
struct scan {
  std::map<std::string, fs_entry> missing;
  std::map<std::string, fs_entry> empty;
  fs_cache cache;

  void run(fs_reader& reader, const std::string& dir) {
    reader.collect_files(
        dir, cache, [this](fs_entry& e) { missing.emplace(e.path, e); },
        [this](fs_entry& e) { empty.emplace(e.path, e); });
  }
  fs_entry cached(const std::string& path) const {
    fs_entry out;
    EXPECT_TRUE(cache.by_path(out, path)) << path << " is not cached";
    return out;
  }
};

// The same tests on two file systems: ext4 (or whatever $TMPDIR is) and tmpfs.
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

TEST_P(FsReader, AttributeValuesAndCallbacks) {
  const std::string max_hash(255, 'h');
  struct file_case {
    std::string name;
    unsigned long size;
    std::map<std::string, std::string> xattrs;
    std::string key;  // "<null>" when it must read as absent
    std::string start_ts;
    std::string end_ts;
    unsigned long creation_ts;
    const char* callback;  // "missing", "empty" or ""
  };
  // Files without a creation attribute get their modification time, set
  // here to 1600000000.999999999 (whole seconds are kept, not rounded).
  const std::vector<file_case> cases = {
      {"full.pcap", 4096, {{HASH, "k1"}, {START, "100"}, {END, "200"}, {CREATION, "1700000000"}},
       "k1", "100", "200", 1700000000, ""},
      {"no-creation.pcap", 4096, {{HASH, "k2"}, {START, "1"}, {END, "2"}}, "k2", "1", "2", 1600000000, ""},
      {"max-value.pcap", 4096, {{HASH, max_hash}}, max_hash, "<null>", "<null>", 1600000000, ""},
      {"too-long.pcap", 4096, {{HASH, max_hash + "h"}, {START, "5"}}, "<null>", "5", "<null>", 1600000000,
       "missing"},
      {"empty-value.pcap", 4096, {{HASH, ""}, {START, ""}}, "<null>", "<null>", "<null>", 1600000000, "missing"},
      {"bare.pcap", 4096, {}, "<null>", "<null>", "<null>", 1600000000, "missing"},
      {"bare-tiny.pcap", 0, {}, "<null>", "<null>", "<null>", 1600000000, "missing"},
      // Every timestamp but no hash still counts as missing attributes.
      {"no-hash.pcap", 4096, {{START, "10"}, {END, "20"}, {CREATION, "30"}}, "<null>", "10", "20", 30, "missing"},
      // The empty-file limit is 236 bytes, inclusive.
      {"size-0.pcap", 0, {{HASH, "k3"}}, "k3", "<null>", "<null>", 1600000000, "empty"},
      {"size-236.pcap", 236, {{HASH, "k4"}}, "k4", "<null>", "<null>", 1600000000, "empty"},
      {"size-237.pcap", 237, {{HASH, "k5"}}, "k5", "<null>", "<null>", 1600000000, ""},
  };
  for (const auto& c : cases) {
    write_file(file(c.name), c.size);
    for (const auto& [name, value] : c.xattrs) set_xattr(file(c.name), name, value);
    set_mtime(file(c.name), 1600000000, 999999999);
  }

  std::set<std::string> loaded;
  auto reader = make_reader(is_capture_name, [&](fs_entry& e) { loaded.insert(e.path); });
  scan s;
  s.run(*reader, _dir);

  // Every record is inserted, reported ones included, and each is loaded once.
  EXPECT_EQ(s.cache.size(), cases.size());
  EXPECT_EQ(loaded.size(), cases.size());
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs_entry e = s.cached(file(c.name));
    EXPECT_EQ(text_of(e.key), c.key);
    EXPECT_EQ(text_of(e.start_ts), c.start_ts);
    EXPECT_EQ(text_of(e.end_ts), c.end_ts);
    EXPECT_EQ(e.creation_ts, c.creation_ts);
    EXPECT_EQ(e.file_size, c.size);
    EXPECT_EQ(s.missing.count(file(c.name)), std::string(c.callback) == "missing" ? 1u : 0u);
    EXPECT_EQ(s.empty.count(file(c.name)), std::string(c.callback) == "empty" ? 1u : 0u);
    // A callback receives the loaded record, metadata included.
    if (s.missing.count(file(c.name)) != 0) {
      EXPECT_EQ(text_of(s.missing.at(file(c.name)).start_ts), c.start_ts);
    }
    if (s.empty.count(file(c.name)) != 0) {
      EXPECT_EQ(text_of(s.empty.at(file(c.name)).key), c.key);
    }
  }
}

TEST_P(FsReader, FilterSeesBareNamesAndEveryEntry) {
  write_file(file("a.pcap"), 10);
  write_file(file("notes.txt"), 10);
  ASSERT_EQ(::mkdir(file("sub").c_str(), 0755), 0);

  std::set<std::string> seen;
  auto reader = make_reader([&](const std::string& name) {
    seen.insert(name);
    return is_capture_name(name);
  });
  scan s;
  s.run(*reader, _dir);
  // The type test lets directories through, "." and ".." included: the
  // filter alone decides.
  EXPECT_EQ(seen, (std::set<std::string>{".", "..", "a.pcap", "notes.txt", "sub"}));
  EXPECT_EQ(s.cache.size(), 1u);
  EXPECT_TRUE(s.cache.path_exists(file("a.pcap")));
}

TEST_P(FsReader, EmptyDirectoryInsertsWhatTheFilterLetsThrough) {
  struct {
    const char* label;
    fs_reader::filter_type filter;
    std::set<std::string> expected;
  } const cases[] = {
      {"captures only", is_capture_name, {}},
      {"everything", [](const std::string&) { return true; }, {_dir + "/.", _dir + "/.."}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto reader = make_reader(c.filter);
    scan s;
    s.run(*reader, _dir);
    std::set<std::string> paths;
    for (const auto& [path, e] : faitra_test::contents(s.cache)) paths.insert(path);
    EXPECT_EQ(paths, c.expected);
    // The directories are reported as files without attributes.
    EXPECT_EQ(s.missing.size(), c.expected.size());
  }
}

TEST_P(FsReader, PathIsDirectoryPlusSeparatorPlusName) {
  write_file(file("a.pcap"), 10);
  auto reader = make_reader();
  scan s;
  s.run(*reader, _dir + "/");
  // No separator is removed or doubled.
  EXPECT_TRUE(s.cache.path_exists(_dir + "//a.pcap"));
  EXPECT_EQ(s.cache.size(), 1u);
}

TEST_P(FsReader, UnopenableDirectoryRaises) {
  write_file(file("plain.pcap"), 10);
  for (const std::string& dir : {file("missing"), file("plain.pcap")}) {
    SCOPED_TRACE(dir);
    auto reader = make_reader();
    scan s;
    try {
      s.run(*reader, dir);
      ADD_FAILURE() << "no exception";
    } catch (const cdl::exception& e) {
      EXPECT_EQ(std::string(e.what()), "Unable to open the file folder.");
      EXPECT_EQ(e.file(), "fs_reader.cpp");
    }
    EXPECT_EQ(s.cache.size(), 0u);
  }
}

TEST_P(FsReader, MalformedNumericAttributeRaisesOutOfTheScan) {
  struct {
    std::string attribute;
    std::string value;
    std::string message;
  } const cases[] = {
      {START, "abc", "abc is not a number."},
      {END, "-1", "-1 is not in range. It must be between 0 and 18446744073709551615"},
      {CREATION, "x1", "x1 is not a number."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.attribute + "=" + c.value);
    write_file(file("bad.pcap"), 10);
    set_xattr(file("bad.pcap"), HASH, "k");
    set_xattr(file("bad.pcap"), c.attribute, c.value);
    auto reader = make_reader();
    scan s;
    try {
      s.run(*reader, _dir);
      ADD_FAILURE() << "no exception";
    } catch (const cdl::exception& e) {
      EXPECT_EQ(std::string(e.what()), c.message);
    }
    ASSERT_EQ(::unlink(file("bad.pcap").c_str()), 0);
  }
}

TEST_P(FsReader, LoadAttributesLeavesTheRecordAloneWhenStatFails) {
  fs_entry e(file("gone.pcap"));
  e.creation_ts = 7;
  e.file_size = 9;
  auto reader = make_reader();
  EXPECT_FALSE(reader->load_attributes(e));
  EXPECT_EQ(e.creation_ts, 7u);
  EXPECT_EQ(e.file_size, 9u);
}

INSTANTIATE_TEST_SUITE_P(FileSystems, FsReader, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? std::string("Tmpfs") : std::string("TempDir");
                         });

}  // namespace
