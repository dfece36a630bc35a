// Writing JSON through cdl::json_writer and reading fields back with the
// cdl::set_from_json family. Every text the writer produces is parsed back
// with RapidJSON.
#include <cdl/exception.hpp>
#include <cdl/json_reader.hpp>
#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>
#include <cdl/text.hpp>

#include <csl/fs_entry.hpp>

#include <gtest/gtest.h>

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace {

// Parses `text` strictly (whole text, valid UTF-8) or fails the test.
rapidjson::Document parse(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  EXPECT_FALSE(doc.HasParseError()) << rapidjson::GetParseError_En(doc.GetParseError()) << " at "
                                    << doc.GetErrorOffset() << " in: " << text;
  return doc;
}

std::string string_of(const rapidjson::Value& v) {
  EXPECT_TRUE(v.IsString());
  return v.IsString() ? std::string(v.GetString(), v.GetStringLength()) : std::string();
}

std::string all_control_characters() {
  std::string s;
  for (int c = 0; c < 0x20; ++c) s += static_cast<char>(c);
  return s;
}

// Texts that must survive quoting byte for byte.
const std::vector<std::string>& awkward_texts() {
  static const std::vector<std::string> texts = {
      "",
      "plain",
      "say \"hi\"",
      "back\\slash\\",
      "\\\"",
      all_control_characters(),
      std::string("nul\0inside", 10),
      "tab\tnew\nline\rform\fback\b",
      "\x7f delete",
      "caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x98\x80",  // café 日本 and an emoji
      "/slash/ and </script>",
  };
  return texts;
}

TEST(JsonWriter, QuotedTextsRoundTripByteIdentical) {
  for (const std::string& text : awkward_texts()) {
    SCOPED_TRACE(::testing::PrintToString(text));
    const std::string quoted = cdl::safe_quote(text);
    for (char c : quoted) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << "raw control character left";
    EXPECT_EQ(string_of(parse("\"" + quoted + "\"")), text);

    // As a member name, a string value and a nullable string value.
    cdl::json_writer writer;
    writer.begin_object();
    writer.key(text, true);
    writer.value(text);
    writer.key("n", true);
    writer.value(cdl::nullable<std::string>(text));
    writer.end_object();
    const auto doc = parse(writer.take());
    ASSERT_TRUE(doc.IsObject());
    ASSERT_EQ(doc.MemberCount(), 2u);
    EXPECT_EQ(string_of(doc.MemberBegin()->name), text);
    EXPECT_EQ(string_of(doc.MemberBegin()->value), text);
    EXPECT_EQ(string_of(doc["n"]), text);

    // Through a record's path and key, out and back in.
    csl::fs_entry record(text);
    record.key = text;
    csl::fs_entry back;
    cdl::validation_error_list errors;
    back.from_json(parse(record.to_json_str()), errors, {}, {}, {});
    EXPECT_EQ(back.path, text);
    ASSERT_FALSE(back.key.is_null());
    EXPECT_EQ(*back.key, text);
  }
}

TEST(JsonWriter, ScalarsAndNestingFormValidDocuments) {
  cdl::json_writer writer;
  writer.begin_object();
  writer.key("zero", true);
  writer.value(0UL);
  writer.key("max", true);
  writer.value(std::numeric_limits<unsigned long>::max());
  writer.key("null_u", true);
  writer.value(cdl::nullable<unsigned long>());
  writer.key("set_u", true);
  writer.value(cdl::nullable<unsigned long>(7UL));
  writer.key("null_s", true);
  writer.value(cdl::nullable<std::string>());
  writer.key("list", true);
  writer.begin_array();
  writer.begin_object();
  writer.end_object();
  writer.begin_array();
  writer.end_array();
  writer.value(false);
  writer.null_value();
  writer.end_array();
  writer.key("empty", true);
  writer.begin_object();
  writer.end_object();
  writer.end_object();
  ASSERT_TRUE(writer.complete());
  const std::string text = writer.take();

  EXPECT_EQ(text,
            "{\"zero\":0,\"max\":18446744073709551615,\"null_u\":null,\"set_u\":7,\"null_s\":null,"
            "\"list\":[{},[],false,null],\"empty\":{}}");
  const auto doc = parse(text);
  ASSERT_TRUE(doc.IsObject());
  EXPECT_EQ(doc["max"].GetUint64(), std::numeric_limits<unsigned long>::max());

  // take() leaves the writer empty and ready for the next document.
  EXPECT_FALSE(writer.complete());
  writer.begin_array();
  writer.end_array();
  EXPECT_EQ(writer.take(), "[]");
}

TEST(JsonWriter, MisuseRaises) {
  using step = std::function<void(cdl::json_writer&)>;
  const struct {
    const char* what;
    step steps;
  } cases[] = {
      {"value where a key is due", [](auto& w) { w.begin_object(); w.value(1UL); }},
      {"object where a key is due", [](auto& w) { w.begin_object(); w.begin_object(); }},
      {"key at top level", [](auto& w) { w.key("k", true); }},
      {"key inside an array", [](auto& w) { w.begin_array(); w.key("k", true); }},
      {"two keys in a row", [](auto& w) { w.begin_object(); w.key("a", true); w.key("b", true); }},
      {"end_object with nothing open", [](auto& w) { w.end_object(); }},
      {"end_array with nothing open", [](auto& w) { w.end_array(); }},
      {"end_object closing an array", [](auto& w) { w.begin_array(); w.end_object(); }},
      {"end_array closing an object", [](auto& w) { w.begin_object(); w.end_array(); }},
      {"end_object after a dangling key", [](auto& w) { w.begin_object(); w.key("k", true); w.end_object(); }},
      {"second top-level value", [](auto& w) { w.value(1UL); w.value(2UL); }},
      {"take from an empty writer", [](auto& w) { w.take(); }},
      {"take with an open object", [](auto& w) { w.begin_object(); w.take(); }},
      {"take after a dangling key", [](auto& w) { w.begin_object(); w.key("k", true); w.take(); }},
  };
  for (const auto& c : cases) {
    cdl::json_writer writer;
    EXPECT_THROW(c.steps(writer), cdl::exception) << c.what;
  }
}

// --- reading ---------------------------------------------------------------

enum class getter { str, unsigned_, boolean };

// Runs one getter; the output is discarded.
bool get(getter g, const rapidjson::Document& doc, const std::string& key, bool* is_null = nullptr) {
  std::string s;
  unsigned long u = 0;
  bool b = false;
  switch (g) {
    case getter::str:
      return cdl::impl::get_str_from_json(s, doc, key, is_null);
    case getter::unsigned_:
      return cdl::impl::get_unsigned_from_json(u, doc, key, is_null);
    case getter::boolean:
      return cdl::impl::get_bool_from_json(b, doc, key, is_null);
  }
  return false;
}

// set_from_json with the given specs into a throw-away target.
bool set(getter g, const rapidjson::Document& doc, const std::string& key, cdl::field_specs specs) {
  std::string s;
  unsigned long u = 0;
  bool b = false;
  switch (g) {
    case getter::str:
      return cdl::set_from_json(s, doc, key, specs);
    case getter::unsigned_:
      return cdl::set_from_json(u, doc, key, specs);
    case getter::boolean:
      return cdl::set_from_json(b, doc, key, specs);
  }
  return false;
}

rapidjson::Document doc_of(const char* text) {
  rapidjson::Document doc;
  doc.Parse(text);
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

template <typename E, typename F>
void expect_raise(F&& call, const std::string& message, unsigned long line, const std::string& context) {
  try {
    call();
    ADD_FAILURE() << context << ": nothing raised";
  } catch (const E& e) {
    EXPECT_STREQ(e.what(), message.c_str()) << context;
    EXPECT_EQ(e.file(), "json_reader.hpp") << context;
    EXPECT_EQ(e.line(), line) << context;
  }
}

struct getter_facts {
  getter g;
  const char* name;
  unsigned long array_line;
  const char* good;   // a document whose "k" has the right type
  const char* wrong;  // a document whose "k" has another type
  const char* wrong_message;
  unsigned long wrong_line;
  const char* missing_message;
  unsigned long missing_line;
};

const getter_facts all_getters[] = {
    {getter::str, "string", 307, R"({"k":"v"})", R"({"k":1})", "The k field must be a string.", 324,
     "The k field is missing.", 839},
    {getter::unsigned_, "unsigned", 236, R"({"k":1})", R"({"k":"1"})", "The k field must be unsigned.", 253,
     "The key is missing: k.", 1021},
    {getter::boolean, "bool", 343, R"({"k":true})", R"({"k":1})", "The k field must be a boolean.", 360,
     "The k field is missing.", 965},
};

TEST(JsonReader, GetterOutcomesByDocumentShape) {
  for (const auto& f : all_getters) {
    SCOPED_TRACE(f.name);
    bool is_null = false;

    // A null document is simply absent, before any array check.
    EXPECT_FALSE(get(f.g, doc_of("null"), "k"));
    EXPECT_FALSE(get(f.g, doc_of("null"), ""));

    for (const char* array : {"[]", R"([{"k":1}])"}) {
      expect_raise<cdl::assertion_failure>([&] { get(f.g, doc_of(array), "k"); }, "The input must not be an array.",
                                           f.array_line, std::string(f.name) + " on " + array);
      expect_raise<cdl::assertion_failure>([&] { get(f.g, doc_of(array), ""); }, "The input must not be an array.",
                                           f.array_line, std::string(f.name) + " on " + array + ", empty key");
    }

    EXPECT_TRUE(get(f.g, doc_of(f.good), "k", &is_null));
    EXPECT_FALSE(is_null);
    EXPECT_FALSE(get(f.g, doc_of(f.good), "other"));
    EXPECT_FALSE(get(f.g, doc_of("5"), "k"));  // not an object
    EXPECT_FALSE(get(f.g, doc_of("{}"), "k"));

    // A null field: absent without a flag pointer, "null" with one.
    EXPECT_FALSE(get(f.g, doc_of(R"({"k":null})"), "k"));
    EXPECT_TRUE(get(f.g, doc_of(R"({"k":null})"), "k", &is_null));
    EXPECT_TRUE(is_null);

    expect_raise<cdl::unexpected_type_error>([&] { get(f.g, doc_of(f.wrong), "k"); }, f.wrong_message, f.wrong_line,
                                             f.name);
    expect_raise<cdl::unexpected_type_error>([&] { get(f.g, doc_of(R"({"k":{}})"), "k"); }, f.wrong_message,
                                             f.wrong_line, std::string(f.name) + " on an object");
  }
}

TEST(JsonReader, MandatoryFieldsRaiseOnlyWhenAbsent) {
  for (const auto& f : all_getters) {
    SCOPED_TRACE(f.name);
    for (const cdl::field_specs specs : {cdl::field_specs(cdl::FIELD_MANDATORY), cdl::field_specs(cdl::FIELD_MANDATORY_ALL)}) {
      for (const char* absent : {"{}", R"({"other":1})", "null", "7"}) {
        expect_raise<cdl::missing_field_error>([&] { set(f.g, doc_of(absent), "k", specs); }, f.missing_message,
                                               f.missing_line, std::string(f.name) + " on " + absent);
      }
      EXPECT_TRUE(set(f.g, doc_of(f.good), "k", specs));
    }
    // Optional: absent is just false.
    EXPECT_FALSE(set(f.g, doc_of("{}"), "k", {}));
    EXPECT_FALSE(set(f.g, doc_of("null"), "k", {}));
  }
}

TEST(JsonReader, UnsignedFieldRejectsEverythingButUnsigned64) {
  const struct {
    const char* doc;
    bool accepted;
    unsigned long value;
  } cases[] = {
      {R"({"k":0})", true, 0},
      {R"({"k":18446744073709551615})", true, std::numeric_limits<unsigned long>::max()},
      {R"({"k":-1})", false, 0},
      {R"({"k":-0.0})", false, 0},
      {R"({"k":1.5})", false, 0},
      {R"({"k":2.0})", false, 0},
      {R"({"k":1e3})", false, 0},
      {R"({"k":18446744073709551616})", false, 0},  // parsed as a double
      {R"({"k":true})", false, 0},
      {R"({"k":[1]})", false, 0},
  };
  for (const auto& c : cases) {
    unsigned long out = 42;
    if (c.accepted) {
      EXPECT_TRUE(cdl::set_from_json(out, doc_of(c.doc), "k")) << c.doc;
      EXPECT_EQ(out, c.value) << c.doc;
    } else {
      expect_raise<cdl::unexpected_type_error>([&] { cdl::set_from_json(out, doc_of(c.doc), "k"); },
                                               "The k field must be unsigned.", 253, c.doc);
      EXPECT_EQ(out, 42u) << c.doc;
    }
  }
}

TEST(JsonReader, NullFieldsAndNullableTargets) {
  const cdl::field_specs mandatory(cdl::FIELD_MANDATORY);

  // A plain target with a flag pointer: a JSON null counts as present and
  // leaves the target alone.
  std::string s = "kept";
  bool is_null = false;
  EXPECT_TRUE(cdl::set_from_json(s, doc_of(R"({"k":null})"), "k", mandatory, &is_null));
  EXPECT_TRUE(is_null);
  EXPECT_EQ(s, "kept");

  // Nullable targets: null makes them null, a value sets them, absence
  // leaves them as they were; a mandatory null is not missing.
  cdl::nullable<unsigned long> u(5UL);
  EXPECT_TRUE(cdl::set_from_json(u, doc_of(R"({"k":null})"), "k", mandatory));
  EXPECT_TRUE(u.is_null());
  EXPECT_FALSE(cdl::set_from_json(u, doc_of("{}"), "k"));
  EXPECT_TRUE(u.is_null());
  EXPECT_TRUE(cdl::set_from_json(u, doc_of(R"({"k":9})"), "k", mandatory));
  ASSERT_FALSE(u.is_null());
  EXPECT_EQ(*u, 9u);
  EXPECT_FALSE(cdl::set_from_json(u, doc_of("{}"), "k"));
  ASSERT_FALSE(u.is_null());
  EXPECT_EQ(*u, 9u);
  expect_raise<cdl::missing_field_error>([&] { cdl::set_from_json(u, doc_of("{}"), "k", mandatory); },
                                         "The key is missing: k.", 1021, "nullable unsigned");

  cdl::nullable<std::string> n;
  EXPECT_TRUE(cdl::set_from_json(n, doc_of(R"({"k":"v"})"), "k"));
  ASSERT_FALSE(n.is_null());
  EXPECT_EQ(*n, "v");
  EXPECT_TRUE(cdl::set_from_json(n, doc_of(R"({"k":null})"), "k", mandatory));
  EXPECT_TRUE(n.is_null());
  expect_raise<cdl::unexpected_type_error>([&] { cdl::set_from_json(n, doc_of(R"({"k":1})"), "k"); },
                                           "The k field must be a string.", 324, "nullable string");
}

TEST(JsonReader, EmptyKeyReadsTheDocumentItself) {
  std::string s;
  unsigned long u = 0;
  bool b = false;
  EXPECT_TRUE(cdl::set_from_json(s, doc_of(R"("whole")"), ""));
  EXPECT_EQ(s, "whole");
  EXPECT_TRUE(cdl::set_from_json(u, doc_of("12"), ""));
  EXPECT_EQ(u, 12u);
  EXPECT_TRUE(cdl::set_from_json(b, doc_of("true"), ""));
  EXPECT_TRUE(b);
  // An object read as a whole is of the wrong type; the message names the
  // empty key.
  expect_raise<cdl::unexpected_type_error>([&] { cdl::set_from_json(s, doc_of(R"({"":"x"})"), ""); },
                                           "The  field must be a string.", 324, "object as string");
}

}  // namespace
