// The JSON form of a capture record: member order and text, and the
// one-way, stop-at-the-first-bad-member reading.
#include <csl/fs_entry.hpp>

#include <cdl/exception.hpp>
#include <cdl/json_writer.hpp>

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <string>

namespace {

using csl::fs_entry;
using by = csl::fs_entry::deletion_by;

rapidjson::Document doc_of(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse(text.data(), text.size());
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

void read_into(fs_entry& record, const std::string& text) {
  cdl::validation_error_list errors;
  record.from_json(doc_of(text), errors, {}, {}, {});
  EXPECT_TRUE(errors.empty());
}

fs_entry sample() {
  fs_entry e("/x");
  e.start_ts = 7UL;
  e.file_size = 10;
  return e;
}

TEST(FsEntryJson, WritesEveryMemberInOrder) {
  EXPECT_EQ(sample().to_json_str(),
            R"({"path":"/x","key":null,"creation_ts":0,"start_ts":7,"end_ts":null,"file_size":10,)"
            R"("pending_deletion":false})");

  fs_entry full("/data/a.pcap");
  full.key = std::string("ab12");
  full.creation_ts = 5;
  full.start_ts = 10UL;
  full.end_ts = 20UL;
  full.file_size = 24;
  full.deletion = by::cleanup;
  EXPECT_EQ(full.to_json_str(),
            R"({"path":"/data/a.pcap","key":"ab12","creation_ts":5,"start_ts":10,"end_ts":20,"file_size":24,)"
            R"("pending_deletion":true})");
}

TEST(FsEntryJson, OutputIgnoresApiVersionAndPrintType) {
  const fs_entry record = sample();
  const std::string reference = record.to_json_str();
  for (const auto& version : {cdl::api_version_t<int>{}, cdl::api_version_t<int>{0}, cdl::api_version_t<int>{3}}) {
    for (const auto& print : {cdl::print_type_t<int>{}, cdl::print_type_t<int>{1}, cdl::print_type_t<int>{-2}}) {
      cdl::json_writer writer;
      record.to_json(writer, version, print);
      EXPECT_EQ(writer.take(), reference);
    }
  }
}

TEST(FsEntryJson, ReadingBackMarksAsRequested) {
  fs_entry marked = sample();
  marked.deletion = by::cleanup;
  fs_entry back;
  read_into(back, marked.to_json_str());
  EXPECT_EQ(back.deletion.load(), by::requested);
  EXPECT_EQ(back.path, "/x");
  EXPECT_TRUE(back.key.is_null());
  EXPECT_EQ(back.creation_ts, 0u);
  ASSERT_FALSE(back.start_ts.is_null());
  EXPECT_EQ(*back.start_ts, 7u);
  EXPECT_TRUE(back.end_ts.is_null());
  EXPECT_EQ(back.file_size, 10u);

  // Reading can set the marker but never clear it.
  for (const char* text : {R"({"pending_deletion":false})", "{}", R"({"pending_deletion":null})"}) {
    fs_entry e;
    e.deletion = by::cleanup;
    read_into(e, text);
    EXPECT_EQ(e.deletion.load(), by::cleanup) << text;
  }
  fs_entry unmarked;
  read_into(unmarked, R"({"pending_deletion":false})");
  EXPECT_EQ(unmarked.deletion.load(), by::none);
}

TEST(FsEntryJson, NullClearsNullablesAndAbsenceLeavesEverything) {
  fs_entry e = sample();
  e.key = std::string("k");
  e.creation_ts = 3;
  e.end_ts = 9UL;

  read_into(e, "{}");
  EXPECT_EQ(e.path, "/x");
  EXPECT_EQ(*e.key, "k");
  EXPECT_EQ(*e.start_ts, 7u);
  EXPECT_EQ(*e.end_ts, 9u);

  // Plain members ignore null; nullable members become null.
  read_into(e, R"({"path":null,"key":null,"creation_ts":null,"start_ts":null,"end_ts":null,"file_size":null})");
  EXPECT_EQ(e.path, "/x");
  EXPECT_TRUE(e.key.is_null());
  EXPECT_EQ(e.creation_ts, 3u);
  EXPECT_TRUE(e.start_ts.is_null());
  EXPECT_TRUE(e.end_ts.is_null());
  EXPECT_EQ(e.file_size, 10u);

  // Documents that are not objects change nothing.
  for (const char* text : {"null", "5", R"("text")"}) {
    fs_entry f = sample();
    read_into(f, text);
    EXPECT_EQ(f.to_json_str(), sample().to_json_str()) << text;
  }
}

TEST(FsEntryJson, WrongTypeStopsTheReadAfterEarlierMembers) {
  fs_entry e;
  e.file_size = 99;
  e.deletion = by::none;
  try {
    read_into(e, R"({"path":"/new","key":"h","creation_ts":1,"start_ts":2,"end_ts":3,"file_size":"10",)"
                 R"("pending_deletion":true})");
    ADD_FAILURE() << "nothing raised";
  } catch (const cdl::unexpected_type_error& err) {
    EXPECT_STREQ(err.what(), "The file_size field must be unsigned.");
  }
  EXPECT_EQ(e.path, "/new");
  EXPECT_EQ(*e.key, "h");
  EXPECT_EQ(e.creation_ts, 1u);
  EXPECT_EQ(*e.start_ts, 2u);
  EXPECT_EQ(*e.end_ts, 3u);
  EXPECT_EQ(e.file_size, 99u);
  EXPECT_EQ(e.deletion.load(), by::none);  // never reached

  fs_entry f;
  EXPECT_THROW(read_into(f, R"({"path":"/p","pending_deletion":"yes"})"), cdl::unexpected_type_error);
  EXPECT_EQ(f.path, "/p");
  EXPECT_EQ(f.deletion.load(), by::none);
}

TEST(FsEntryJson, ArrayDocumentRaisesTheAssertion) {
  fs_entry e = sample();
  try {
    read_into(e, R"([{"path":"/y"}])");
    ADD_FAILURE() << "nothing raised";
  } catch (const cdl::assertion_failure& err) {
    EXPECT_STREQ(err.what(), "The input must not be an array.");
  }
  EXPECT_EQ(e.path, "/x");
}

}  // namespace
