// Log lines that go to syslog. This binary defines syslog itself and records
// every call instead of sending it to the system logger.
#undef _FORTIFY_SOURCE

#include <cdl/log.hpp>

#include "support/stdout_capture.hpp"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

struct syslog_call {
  int priority;
  std::string format;
  std::string message;
};
std::mutex calls_mutex;
std::vector<syslog_call> calls;

std::vector<syslog_call> take_calls() {
  const std::lock_guard<std::mutex> lock(calls_mutex);
  return std::exchange(calls, {});
}

}  // namespace

extern "C" void syslog(int priority, const char* format, ...) {
  char buffer[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(buffer, sizeof buffer, format, args);
  va_end(args);
  const std::lock_guard<std::mutex> lock(calls_mutex);
  calls.push_back({priority, format, buffer});
}

namespace {

using cdl::log_facility;
using cdl::log_priority;
using cdl::log_type;

class SyslogTest : public ::testing::Test {
 protected:
  void SetUp() override { take_calls(); }
  void TearDown() override {
    cdl::log_impl::_global_log_line_filter = cdl::nullable<std::regex>();
    cdl::log_impl::_global_print_on_stdout = cdl::nullable<bool>();
  }
};

TEST_F(SyslogTest, PriorityCarriesTheFacilityAndTheLineIsAnArgument) {
  const struct {
    log_facility::value facility;
    log_priority::value priority;
    int expected;
  } rows[] = {{log_facility::local1, log_priority::error, 139}, {log_facility::local7, log_priority::crit, 186},
              {log_facility::local4, log_priority::emerg, 160}};
  for (const auto& r : rows) {
    const cdl::log log(log_type::database, r.facility, "cache", log_priority::debug, false);
    EXPECT_EQ(faitra_test::capture_stdout([&] { log.write(r.priority, "%s at %lu%%", "50%s", 7UL); }), "");
    const auto seen = take_calls();
    ASSERT_EQ(seen.size(), 1U) << r.expected;
    EXPECT_EQ(seen[0].priority, r.expected);
    EXPECT_EQ(seen[0].format, "%s");
    EXPECT_EQ(seen[0].message, "database - cache - 50%s at 7%");
  }
}

TEST_F(SyslogTest, EachLineGoesToExactlyOneOutputTheGlobalChoiceFirst) {
  const struct {
    bool own_choice;
    cdl::nullable<bool> global;
    bool on_stdout;
  } rows[] = {{true, {}, true}, {false, {}, false}, {false, true, true}, {true, false, false}};
  for (const auto& r : rows) {
    SCOPED_TRACE(::testing::Message() << "own " << r.own_choice << ", global " << r.global.is_null());
    cdl::log_impl::_global_print_on_stdout = r.global;
    const cdl::log log(log_type::os, log_facility::local2, "", log_priority::info, r.own_choice);
    EXPECT_EQ(faitra_test::capture_stdout([&] { log.info("line"); }), r.on_stdout ? "os - line\n" : "");
    const auto seen = take_calls();
    ASSERT_EQ(seen.size(), r.on_stdout ? 0U : 1U);
    if (!r.on_stdout) {
      EXPECT_EQ(seen[0].message, "os - line");
    }
  }
}

TEST_F(SyslogTest, SuppressedOrFilteredLinesAreNotSent) {
  const cdl::log log(log_type::generic, log_facility::local0, "n", log_priority::error, false);
  log.info("below the level");
  cdl::log_impl::_global_log_line_filter = std::regex("generic - n - keep.*");
  log.error("drop this");
  log.error("keep this");
  const auto seen = take_calls();
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].message, "generic - n - keep this");
  EXPECT_EQ(seen[0].priority, 131);
}

}  // namespace
