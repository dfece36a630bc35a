// The host runtime and the catalogue's lock: the exception formatter,
// numeric parsing of attribute texts, JSON texts that parse back byte for
// byte, the lock's recursion, and the order task handlers run in.
#include <csl/utils/recursive_shared_mutex.hpp>

#include <cdl/exception.hpp>
#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>
#include <cdl/task_system.hpp>
#include <cdl/utils.hpp>

#include <gtest/gtest.h>

#include <rapidjson/document.h>

#include <stdexcept>
#include <thread>

namespace {

TEST(Runtime, ThrowAssertFormatsTwiceAndNegativeTextIsOutOfRangeNeverWrappedAround) {
  try {
    cdl::throw_assert("f.cpp", 7, "%s", "100%%");
    ADD_FAILURE() << "nothing thrown";
  } catch (const cdl::exception& e) {
    EXPECT_STREQ(e.what(), "100%");
  }
  const std::string big(200000, 'z');  // not truncated
  EXPECT_EQ(cdl::exception("g.cpp", 2, "%s %s", big.c_str(), "100%%").what(), big + " 100%%");
  for (const char* text : {"-1", " -5", "18446744073709551616"}) {
    EXPECT_THROW(cdl::from_str<unsigned long>(text, nullptr, 10), cdl::not_in_range_error) << text;
  }
  EXPECT_THROW(cdl::from_str<unsigned long>("abc", nullptr, 10), cdl::unrecognized_value_error);
  EXPECT_EQ(cdl::from_str<unsigned long>("18446744073709551615", nullptr, 10), ~0UL);
  EXPECT_EQ(cdl::from_str<long>("-9223372036854775808", nullptr, 10), std::numeric_limits<long>::min());
  EXPECT_THROW(cdl::from_str<long>("9223372036854775808", nullptr, 10), cdl::not_in_range_error);
}

TEST(Runtime, JsonNamesAndTextsRoundTripByteIdenticalAndMisuseRaises) {
  std::string controls;
  for (char c = 1; c < 0x20; ++c) controls += c;
  for (const std::string& text : {std::string("say \"hi\" \\back\\"), controls, std::string("nul\0in", 6),
                                  std::string("\x7f caf\xc3\xa9 \xf0\x9f\x98\x80")}) {
    cdl::json_writer writer;
    writer.begin_object();
    writer.key(text, true);
    writer.value(cdl::nullable<std::string>(text));
    writer.end_object();
    const std::string json = writer.take();
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseValidateEncodingFlag>(json.data(), json.size());
    ASSERT_TRUE(doc.IsObject()) << json;
    const auto& member = *doc.MemberBegin();
    EXPECT_EQ(std::string(member.name.GetString(), member.name.GetStringLength()), text);
    EXPECT_EQ(std::string(member.value.GetString(), member.value.GetStringLength()), text);
  }
  cdl::json_writer w;
  w.begin_object();
  EXPECT_THROW(w.value(1UL), cdl::exception);  // a value where a name is due
  EXPECT_THROW(w.take(), cdl::exception);      // incomplete
}

// Exclusion between threads is the catalogue's concurrency test's business.
TEST(RecursiveSharedMutex, NestedHoldsCountPerThread) {
  csl::recursive_shared_mutex m;
  m.lock();
  m.lock_shared();  // counted into the exclusive hold
  m.lock();
  EXPECT_EQ(m.recursion_of_this_thread(), 3u);
  std::thread([&] { EXPECT_EQ(m.recursion_of_this_thread(), 0u); }).join();
  m.unlock();
  m.unlock_shared();
  m.unlock();
}

constexpr unsigned long VERSION = 1;
using order = cdl::task_handler_order;

class item : public cdl::task {
 public:
  explicit item(int value = 0) : cdl::task(VERSION), value(value) {}
  const cdl::task_type& type() const override { return cdl::task_type::identify<item>(); }
  const std::string& name() const override { return name_static(); }
  static const std::string& name_static() {
    static const std::string name = "runtime_test.item";
    return name;
  }
  int value;
};
cdl::task_ptr<cdl::task> make(int value) { return cdl::memory_pool<item>::make(value); }

struct recorder {
  std::vector<std::string> calls;
  cdl::task_ptr<item> kept;
  void first(cdl::task_ptr<item>&) { calls.push_back("first"); }
  void normal_a(cdl::task_ptr<item>&) { calls.push_back("normal_a"); }
  void failing(cdl::task_ptr<item>&) { throw std::runtime_error("failed"); }
  void normal_b(cdl::task_ptr<item>&) { calls.push_back("normal_b"); }
  void last_a(cdl::task_ptr<item>&) { calls.push_back("last_a"); }
  void last_b(cdl::task_ptr<item>&) { calls.push_back("last_b"); }
  void keep(cdl::task_ptr<item>& t) { kept = std::move(t); }
};

// The cleaner's created handler must run after the tracker's, both "normal".
TEST(TaskDispatch, RunsFirstNormalInRegistrationOrderThenLastInReverseAndSurvivesFailures) {
  cdl::core core;
  cdl::task_dispatcher dispatcher;
  recorder r;
  dispatcher.register_task_handler(&recorder::last_a, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::normal_a, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::failing, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::normal_b, &r, order::normal, VERSION);
  dispatcher.register_task_handler(&recorder::last_b, &r, order::last, VERSION);
  dispatcher.register_task_handler(&recorder::first, &r, order::first, VERSION);
  dispatcher.register_task_handler(&recorder::first, &r, order::first, VERSION + 1);
  cdl::task_ptr<cdl::task> t = make(1);
  dispatcher.dispatch(t, core, "test");
  EXPECT_EQ(r.calls, (std::vector<std::string>{"first", "normal_a", "normal_b", "last_b", "last_a"}));
  EXPECT_EQ(core.failures(), 1u);
  cdl::task_dispatcher keeping;  // a handler that keeps the task ends its dispatch
  keeping.register_task_handler(&recorder::keep, &r, order::first, VERSION);
  keeping.register_task_handler(&recorder::last_a, &r, order::last, VERSION);
  keeping.dispatch(t, core, "test");
  EXPECT_TRUE(!t && r.kept && r.calls.size() == 5);
}

}  // namespace
