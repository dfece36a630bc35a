// The capture record: copying (with its atomic marker), comparison rules,
// the extended-attribute test and the one-line log text.
#include <csl/fs_entry.hpp>

#include "support/records.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using csl::fs_entry;
using deletion = csl::fs_entry::deletion_by;
using faitra_test::record;

TEST(FsEntryText, RendersEveryFieldWithTrailingSeparator) {
  struct row {
    fs_entry entry;
    std::string text;
  };
  const std::vector<row> rows = {
      {fs_entry(), "path: , key: null, creation_ts: 0, start_ts: null, end_ts: null, file_size: 0, "},
      {record("/data/a.pcap", "ab12", 5, 10, std::nullopt, 24),
       "path: /data/a.pcap, key: ab12, creation_ts: 5, start_ts: 10, end_ts: null, file_size: 24, "},
      {record("p", "", 18446744073709551615UL, 0, 1000000, 7),
       "path: p, key: , creation_ts: 18446744073709551615, start_ts: 0, end_ts: 1000000, file_size: 7, "},
  };
  for (auto r : rows) EXPECT_EQ(r.entry.to_str(), r.text);
}

TEST(FsEntryAttributes, DecidedByTheKeyAlone) {
  EXPECT_FALSE(record("/a", std::nullopt, 1, 2, 3, 4).has_extended_attributes());
  EXPECT_TRUE(record("/a", "h", 0, std::nullopt, std::nullopt, 0).has_extended_attributes());
  EXPECT_TRUE(record("/a", "", 0, std::nullopt, std::nullopt, 0).has_extended_attributes());
  EXPECT_FALSE(fs_entry("/a").has_extended_attributes());
}

TEST(FsEntryCompare, EqualityLooksAtThePathOnly) {
  EXPECT_TRUE(record("/a", "k1", 1, 2, 3, 4) == record("/a", std::nullopt, 9, std::nullopt, 8, 99));
  EXPECT_FALSE(record("/a", "k", 1, 2, 3, 4) == record("/b", "k", 1, 2, 3, 4));
}

TEST(FsEntryCompare, StartTimestampsWhenBothSetPathsOtherwise) {
  struct row {
    const char* name;
    fs_entry a;
    fs_entry b;
    bool a_less;
    bool b_less;
  };
  const auto none = std::nullopt;
  const std::vector<row> rows = {
      {"start decides against paths", record("/z", none, 0, 5, none, 0), record("/a", none, 0, 7, none, 0), true,
       false},
      {"equal start, different paths", record("/a", none, 0, 5, none, 0), record("/b", none, 0, 5, none, 0), false,
       false},
      {"other start null", record("/z", none, 0, 5, none, 0), record("/a", none, 0, none, none, 0), false, true},
      {"this start null", record("/a", none, 0, none, none, 0), record("/z", none, 0, 1, none, 0), true, false},
      {"both null", record("/b", none, 0, none, none, 0), record("/c", none, 0, none, none, 0), true, false},
      {"unsigned comparison", record("/a", none, 0, 18446744073709551615UL, none, 0),
       record("/b", none, 0, 1, none, 0), false, true},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(r.a < r.b, r.a_less) << r.name;
    EXPECT_EQ(r.b < r.a, r.b_less) << r.name;
  }
}

TEST(FsEntryCopy, CopiesEveryFieldAndTheMarker) {
  fs_entry original = record("/d/x.pcap", "h", 3, 4, 5, 6);
  original.deletion.store(deletion::cleanup);

  fs_entry copy(original);
  EXPECT_EQ(copy.to_str(), "path: /d/x.pcap, key: h, creation_ts: 3, start_ts: 4, end_ts: 5, file_size: 6, ");
  EXPECT_EQ(copy.deletion.load(), deletion::cleanup);
  EXPECT_TRUE(copy.is_deletion_pending());

  // Assigning onto a marked record takes the source's marker, including none.
  fs_entry target = record("/other", std::nullopt, 0, std::nullopt, std::nullopt, 0);
  target.deletion.store(deletion::requested);
  target = record("/clean", "k", 1, 2, std::nullopt, 9);
  EXPECT_FALSE(target.is_deletion_pending());
  EXPECT_EQ(target.to_str(), "path: /clean, key: k, creation_ts: 1, start_ts: 2, end_ts: null, file_size: 9, ");

  target = original;
  EXPECT_EQ(target.deletion.load(), deletion::cleanup);
  EXPECT_EQ(target.path, original.path);
  EXPECT_EQ(*target.start_ts, 4UL);

  // Assigning must also clear fields that are null in the source.
  target = fs_entry("/empty");
  EXPECT_TRUE(target.key.is_null());
  EXPECT_TRUE(target.start_ts.is_null());
  EXPECT_TRUE(target.end_ts.is_null());
  EXPECT_EQ(target.creation_ts, 0UL);
  EXPECT_EQ(target.file_size, 0UL);
}

TEST(FsEntryCopy, MovingCopiesAndLeavesTheSourceIntact) {
  fs_entry source = record("/d/m.pcap", "key", 1, 2, 3, 4);
  source.deletion.store(deletion::requested);
  fs_entry moved(std::move(source));
  fs_entry assigned;
  assigned = std::move(source);
  for (const fs_entry* e : {&source, &moved, &assigned}) {
    EXPECT_EQ(e->path, "/d/m.pcap");
    EXPECT_EQ(*e->key, "key");
    EXPECT_EQ(e->deletion.load(), deletion::requested);
  }
}

TEST(FsEntryMarker, AnyMarkIsPending) {
  fs_entry e("/a");
  EXPECT_FALSE(e.is_deletion_pending());
  for (deletion d : {deletion::requested, deletion::cleanup}) {
    e.deletion.store(d);
    EXPECT_TRUE(e.is_deletion_pending());
  }
  EXPECT_EQ(static_cast<int>(deletion::none), 0);
  EXPECT_EQ(static_cast<int>(deletion::requested), 1);
  EXPECT_EQ(static_cast<int>(deletion::cleanup), 2);
}

}  // namespace
