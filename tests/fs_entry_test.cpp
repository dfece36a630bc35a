// The capture record: copying (with its atomic marker), the comparison rules,
// the one-line log text, and its JSON form (member order, and the one-way,
// stop-at-the-first-bad-member reading).
#include <csl/fs_entry.hpp>

#include <cdl/exception.hpp>
#include <cdl/json_writer.hpp>

#include "support/records.hpp"

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <string>
#include <vector>

namespace {

using csl::fs_entry;
using by = csl::fs_entry::deletion_by;
using faitra_test::record;
const auto none = std::nullopt;

TEST(FsEntry, TextKeyTestAndEqualityByPath) {
  EXPECT_EQ(fs_entry().to_str(), "path: , key: null, creation_ts: 0, start_ts: null, end_ts: null, file_size: 0, ");
  EXPECT_EQ(record("p", "", ~0UL, 0, 1000000, 7).to_str(),
            "path: p, key: , creation_ts: 18446744073709551615, start_ts: 0, end_ts: 1000000, file_size: 7, ");
  // The key alone decides, an empty one included.
  EXPECT_TRUE(record("/a", "", 0, none, none, 0).has_extended_attributes());
  EXPECT_FALSE(record("/a", none, 1, 2, 3, 4).has_extended_attributes());
  EXPECT_TRUE(record("/a", "k1", 1, 2, 3, 4) == record("/a", none, 9, none, 8, 99));
  EXPECT_FALSE(record("/a", "k", 1, 2, 3, 4) == record("/b", "k", 1, 2, 3, 4));
  EXPECT_EQ(static_cast<int>(by::requested), 1);
  EXPECT_EQ(static_cast<int>(by::cleanup), 2);
}

TEST(FsEntry, OrderByStartWhenBothAreSetByPathOtherwise) {
  const struct {
    const char* name;
    fs_entry a, b;
    bool a_less, b_less;
  } rows[] = {
      {"start decides against paths", record("/z", none, 0, 5, none), record("/a", none, 0, 7, none), true, false},
      {"equal start", record("/a", none, 0, 5, none), record("/b", none, 0, 5, none), false, false},
      {"one start null", record("/z", none, 0, none, none), record("/a", none, 0, 1, none), false, true},
      {"unsigned", record("/a", none, 0, ~0UL, none), record("/b", none, 0, 1, none), false, true},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(r.a < r.b, r.a_less) << r.name;
    EXPECT_EQ(r.b < r.a, r.b_less) << r.name;
  }
}

TEST(FsEntry, CopiesAndMovesCarryEveryFieldAndTheMarker) {
  fs_entry original = record("/x", "h", 3, 4, 5, 6);
  original.deletion.store(by::cleanup);
  fs_entry target = record("/other", "k", 1, 2, 3, 9);
  target.deletion.store(by::requested);
  target = fs_entry("/empty");  // null fields and the none marker are copied too
  EXPECT_EQ(target.to_str(), fs_entry("/empty").to_str());
  EXPECT_FALSE(target.is_deletion_pending());
  target = original;
  EXPECT_EQ(target.to_str(), original.to_str());
  EXPECT_EQ(target.deletion.load(), by::cleanup);
  fs_entry moved(std::move(original));  // a move copies: the source stays intact
  fs_entry copied(original);
  for (fs_entry* e : {&original, &moved, &copied}) {
    EXPECT_EQ(e->to_str(), "path: /x, key: h, creation_ts: 3, start_ts: 4, end_ts: 5, file_size: 6, ");
    EXPECT_EQ(e->deletion.load(), by::cleanup);
  }
}

rapidjson::Document doc_of(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.data(), text.size());
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

void read_into(fs_entry& e, const std::string& text) {
  cdl::validation_error_list errors;
  e.from_json(doc_of(text), errors, {}, {}, {});
  EXPECT_TRUE(errors.empty());
}

TEST(FsEntryJson, WritesEveryMemberInOrderWhateverTheVersion) {
  fs_entry e = record("/data/a.pcap", "ab12", 5, 10, 20, 24);
  e.deletion = by::cleanup;
  cdl::json_writer writer;
  e.to_json(writer, cdl::api_version_t<int>{3}, cdl::print_type_t<int>{-2});
  EXPECT_EQ(writer.take(), R"({"path":"/data/a.pcap","key":"ab12","creation_ts":5,"start_ts":10,"end_ts":20,)"
                           R"("file_size":24,"pending_deletion":true})");
  EXPECT_EQ(fs_entry("/x").to_json_str(), R"({"path":"/x","key":null,"creation_ts":0,"start_ts":null,)"
                                          R"("end_ts":null,"file_size":0,"pending_deletion":false})");
}

TEST(FsEntryJson, ReadingMarksAsRequestedButNeverClears) {
  fs_entry back;
  read_into(back, record("/x", none, 0, 7, none, 10).to_json_str());
  EXPECT_EQ(back.to_str(), "path: /x, key: null, creation_ts: 0, start_ts: 7, end_ts: null, file_size: 10, ");
  fs_entry marked = back;
  marked.deletion = by::cleanup;
  read_into(back, marked.to_json_str());
  EXPECT_EQ(back.deletion.load(), by::requested);
  for (const char* text : {R"({"pending_deletion":false})", "{}", R"({"pending_deletion":null})"}) {
    read_into(marked, text);
    EXPECT_EQ(marked.deletion.load(), by::cleanup) << text;
  }
}

TEST(FsEntryJson, NullClearsNullablesOnlyAndAbsenceLeavesEverything) {
  fs_entry e = record("/x", "k", 3, 7, 9, 10);
  const std::string before = e.to_str();
  for (const char* text : {"{}", "null", "5", R"("text")"}) {
    read_into(e, text);
    EXPECT_EQ(e.to_str(), before) << text;
  }
  read_into(e, R"({"path":null,"key":null,"creation_ts":null,"start_ts":null,"end_ts":null,"file_size":null})");
  EXPECT_EQ(e.to_str(), "path: /x, key: null, creation_ts: 3, start_ts: null, end_ts: null, file_size: 10, ");
}

TEST(FsEntryJson, WrongTypeStopsTheReadAfterEarlierMembers) {
  fs_entry e;
  e.file_size = 99;
  try {
    read_into(e, R"({"path":"/new","key":"h","creation_ts":1,"start_ts":2,"end_ts":3,"file_size":"10",)"
                 R"("pending_deletion":true})");
    ADD_FAILURE() << "nothing raised";
  } catch (const cdl::unexpected_type_error& err) {
    EXPECT_STREQ(err.what(), "The file_size field must be unsigned.");
  }
  EXPECT_EQ(e.to_str(), "path: /new, key: h, creation_ts: 1, start_ts: 2, end_ts: 3, file_size: 99, ");
  EXPECT_EQ(e.deletion.load(), by::none);  // never reached
  try {
    read_into(e, R"([{"path":"/y"}])");
    ADD_FAILURE() << "nothing raised";
  } catch (const cdl::assertion_failure& err) {
    EXPECT_STREQ(err.what(), "The input must not be an array.");
  }
  EXPECT_EQ(e.path, "/new");
}

}  // namespace
