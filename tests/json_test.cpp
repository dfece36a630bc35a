// Writing JSON through cdl::json_writer (every text parsed back with
// RapidJSON) and reading fields with the cdl::set_from_json family.
#include <cdl/exception.hpp>
#include <cdl/json_reader.hpp>
#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>
#include <cdl/text.hpp>

#include <csl/fs_entry.hpp>

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <functional>
#include <limits>
#include <string>

namespace {

rapidjson::Document doc_of(const std::string& text) {
  rapidjson::Document doc;
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(text.data(), text.size());
  EXPECT_FALSE(doc.HasParseError()) << text;
  return doc;
}

std::string string_of(const rapidjson::Value& v) {
  return v.IsString() ? std::string(v.GetString(), v.GetStringLength()) : "<not a string>";
}

TEST(JsonWriter, QuotedTextsRoundTripByteIdentical) {
  std::string controls;
  for (char c = 0; c < 0x20; ++c) controls += c;
  for (const std::string& text : {std::string(), std::string("say \"hi\" back\\slash\\"), controls,
                                  std::string("nul\0inside", 10), std::string("\x7f caf\xc3\xa9 \xf0\x9f\x98\x80")}) {
    SCOPED_TRACE(::testing::PrintToString(text));
    const std::string quoted = cdl::safe_quote(text);
    for (char c : quoted) EXPECT_GE(static_cast<unsigned char>(c), 0x20) << "raw control character left";
    EXPECT_EQ(string_of(doc_of("\"" + quoted + "\"")), text);

    cdl::json_writer writer;
    writer.begin_object();
    writer.key(text, true);
    writer.value(cdl::nullable<std::string>(text));
    writer.end_object();
    const auto doc = doc_of(writer.take());
    ASSERT_EQ(doc.MemberCount(), 1u);
    EXPECT_EQ(string_of(doc.MemberBegin()->name), text);
    EXPECT_EQ(string_of(doc.MemberBegin()->value), text);
  }
}

TEST(JsonWriter, ScalarsAndNestingFormTheExactText) {
  cdl::json_writer writer;
  writer.begin_object();
  writer.key("max", true);
  writer.value(std::numeric_limits<unsigned long>::max());
  writer.key("null_u", true);
  writer.value(cdl::nullable<unsigned long>());
  writer.key("set_u", true);
  writer.value(cdl::nullable<unsigned long>(7UL));
  writer.key("list", true);
  writer.begin_array();
  writer.begin_object();
  writer.end_object();
  writer.value(false);
  writer.null_value();
  writer.end_array();
  writer.end_object();
  ASSERT_TRUE(writer.complete());
  EXPECT_EQ(writer.take(), R"({"max":18446744073709551615,"null_u":null,"set_u":7,"list":[{},false,null]})");
  // take() leaves the writer ready for the next document.
  EXPECT_FALSE(writer.complete());
  writer.begin_array();
  writer.end_array();
  EXPECT_EQ(writer.take(), "[]");
}

TEST(JsonWriter, MisuseRaises) {
  const std::function<void(cdl::json_writer&)> cases[] = {
      [](auto& w) { w.begin_object(); w.value(1UL); },
      [](auto& w) { w.key("k", true); },
      [](auto& w) { w.begin_array(); w.key("k", true); },
      [](auto& w) { w.begin_object(); w.key("a", true); w.key("b", true); },
      [](auto& w) { w.end_array(); },
      [](auto& w) { w.begin_array(); w.end_object(); },
      [](auto& w) { w.begin_object(); w.key("k", true); w.end_object(); },
      [](auto& w) { w.value(1UL); w.value(2UL); },
      [](auto& w) { w.take(); },
      [](auto& w) { w.begin_object(); w.take(); },
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    cdl::json_writer writer;
    EXPECT_THROW(cases[i](writer), cdl::exception) << "case " << i;
  }
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

// One reader per target type, with its texts and where it raises them.
struct reader_case {
  const char* name;
  std::function<bool(const rapidjson::Document&, const std::string&, cdl::field_specs, bool*)> set;
  const char* good;   // "k" of the right type
  const char* wrong;  // "k" of another type
  const char* wrong_message;
  unsigned long array_line, wrong_line, missing_line;
  const char* missing_message;
};

template <typename T>
auto setter() {
  return [](const rapidjson::Document& doc, const std::string& key, cdl::field_specs rules, bool* is_null) {
    T out{};
    return cdl::set_from_json(out, doc, key, rules, is_null);
  };
}

const reader_case readers[] = {
    {"string", setter<std::string>(), R"({"k":"v"})", R"({"k":1})", "The k field must be a string.", 307, 324, 839,
     "The k field is missing."},
    {"unsigned", setter<unsigned long>(), R"({"k":1})", R"({"k":"1"})", "The k field must be unsigned.", 236, 253,
     1021, "The key is missing: k."},
    {"bool", setter<bool>(), R"({"k":true})", R"({"k":1})", "The k field must be a boolean.", 343, 360, 965,
     "The k field is missing."},
};

TEST(JsonReader, OutcomesByDocumentShape) {
  const cdl::field_specs optional{}, mandatory(cdl::FIELD_MANDATORY);
  for (const auto& r : readers) {
    SCOPED_TRACE(r.name);
    bool is_null = false;
    EXPECT_TRUE(r.set(doc_of(r.good), "k", mandatory, &is_null));
    EXPECT_FALSE(is_null);
    // A null document is simply absent, before any array check.
    EXPECT_FALSE(r.set(doc_of("null"), "k", optional, nullptr));
    for (const char* array : {"[]", R"([{"k":1}])"}) {
      expect_raise<cdl::assertion_failure>([&] { r.set(doc_of(array), "k", optional, nullptr); },
                                           "The input must not be an array.", r.array_line, array);
    }
    for (const char* absent : {"{}", R"({"other":1})", "7"}) {
      EXPECT_FALSE(r.set(doc_of(absent), "k", optional, nullptr)) << absent;
    }
    for (const char* absent : {"{}", "null", "7"}) {
      for (const cdl::field_specs rules : {mandatory, cdl::field_specs(cdl::FIELD_MANDATORY_ALL)}) {
        expect_raise<cdl::missing_field_error>([&] { r.set(doc_of(absent), "k", rules, nullptr); },
                                               r.missing_message, r.missing_line, absent);
      }
    }
    // A null field: absent without a flag pointer, present and null with one.
    EXPECT_FALSE(r.set(doc_of(R"({"k":null})"), "k", optional, nullptr));
    EXPECT_TRUE(r.set(doc_of(R"({"k":null})"), "k", mandatory, &is_null));
    EXPECT_TRUE(is_null);
    for (const char* wrong : {r.wrong, R"({"k":{}})"}) {
      expect_raise<cdl::unexpected_type_error>([&] { r.set(doc_of(wrong), "k", optional, nullptr); },
                                               r.wrong_message, r.wrong_line, wrong);
    }
  }
}

TEST(JsonReader, UnsignedAcceptsOnlyUnsigned64) {
  const std::pair<const char*, bool> cases[] = {
      {"0", true}, {"18446744073709551615", true}, {"-1", false}, {"-0.0", false}, {"2.0", false},
      {"1e3", false}, {"18446744073709551616", false},  // parsed as a double
  };
  for (const auto& [number, accepted] : cases) {
    unsigned long out = 42;
    const auto doc = doc_of(std::string(R"({"k":)") + number + "}");
    if (accepted) {
      EXPECT_TRUE(cdl::set_from_json(out, doc, "k")) << number;
      EXPECT_EQ(std::to_string(out), number);
    } else {
      expect_raise<cdl::unexpected_type_error>([&] { cdl::set_from_json(out, doc, "k"); },
                                               "The k field must be unsigned.", 253, number);
      EXPECT_EQ(out, 42u) << number;
    }
  }
}

TEST(JsonReader, NullableTargetsAndTheWholeDocument) {
  const cdl::field_specs mandatory(cdl::FIELD_MANDATORY);
  // A plain target with a flag pointer: a JSON null leaves the target alone.
  std::string s = "kept";
  bool is_null = false;
  EXPECT_TRUE(cdl::set_from_json(s, doc_of(R"({"k":null})"), "k", mandatory, &is_null));
  EXPECT_EQ(s, "kept");
  // Nullable: null makes it null (a mandatory null is not missing), absence
  // leaves it as it was.
  cdl::nullable<unsigned long> u(5UL);
  EXPECT_TRUE(cdl::set_from_json(u, doc_of(R"({"k":null})"), "k", mandatory));
  EXPECT_TRUE(u.is_null());
  EXPECT_TRUE(cdl::set_from_json(u, doc_of(R"({"k":9})"), "k"));
  EXPECT_FALSE(cdl::set_from_json(u, doc_of("{}"), "k"));
  EXPECT_EQ(u, cdl::nullable<unsigned long>(9UL));
  expect_raise<cdl::missing_field_error>([&] { cdl::set_from_json(u, doc_of("{}"), "k", mandatory); },
                                         "The key is missing: k.", 1021, "nullable unsigned");
  // The empty key reads the document itself; the message names the empty key.
  EXPECT_TRUE(cdl::set_from_json(s, doc_of(R"("whole")"), ""));
  EXPECT_EQ(s, "whole");
  expect_raise<cdl::unexpected_type_error>([&] { cdl::set_from_json(s, doc_of(R"({"":"x"})"), ""); },
                                           "The  field must be a string.", 324, "object as string");
}

}  // namespace
