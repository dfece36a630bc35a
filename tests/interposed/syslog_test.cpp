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
#include <vector>

namespace {

struct syslog_call {
  int priority;
  std::string format;
  std::string message;
};

std::mutex calls_mutex;
std::vector<syslog_call> calls;

void record_call(int priority, const char* format, va_list args) {
  char buffer[4096];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  const std::lock_guard<std::mutex> lock(calls_mutex);
  calls.push_back({priority, format, buffer});
}

std::vector<syslog_call> take_calls() {
  const std::lock_guard<std::mutex> lock(calls_mutex);
  std::vector<syslog_call> taken;
  taken.swap(calls);
  return taken;
}

}  // namespace

extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  record_call(priority, format, args);
  va_end(args);
}

namespace {

using cdl::log_facility;
using cdl::log_priority;
using cdl::log_type;
using faitra_test::capture_stdout;

class SyslogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    take_calls();
  }
  void TearDown() override { reset(); }
  static void reset() {
    cdl::log_impl::_global_log_line_filter = cdl::nullable<std::regex>();
    cdl::log_impl::_global_print_on_stdout = cdl::nullable<bool>();
  }
};

TEST_F(SyslogTest, PriorityCarriesTheFacilityAndTheLineIsAnArgument) {
  struct row {
    log_facility::value facility;
    log_priority::value priority;
    int expected;
  };
  const std::vector<row> rows = {
      {log_facility::local1, log_priority::error, 139}, {log_facility::local0, log_priority::info, 134},
      {log_facility::local7, log_priority::crit, 186},  {log_facility::local3, log_priority::debug, 159},
      {log_facility::local4, log_priority::emerg, 160},
  };
  for (const auto& r : rows) {
    const cdl::log log(log_type::database, r.facility, "cache", log_priority::debug, false);
    EXPECT_EQ(capture_stdout([&] { log.write(r.priority, "%s at %lu%%", "50%s", 7UL); }), "");
    const auto seen = take_calls();
    ASSERT_EQ(seen.size(), 1U) << r.expected;
    EXPECT_EQ(seen[0].priority, r.expected);
    EXPECT_EQ(seen[0].format, "%s");
    EXPECT_EQ(seen[0].message, "database - cache - 50%s at 7%");
  }
  EXPECT_EQ(cdl::log_facilities,
            (std::vector<log_facility::value>{log_facility::local0, log_facility::local1, log_facility::local2,
                                              log_facility::local3, log_facility::local4, log_facility::local5,
                                              log_facility::local6, log_facility::local7}));
  EXPECT_EQ(static_cast<int>(log_facility::local1), 136);
}

TEST_F(SyslogTest, EachLineGoesToExactlyOneOutput) {
  struct row {
    const char* name;
    bool own_choice;
    cdl::nullable<bool> global;
    bool on_stdout;
  };
  const std::vector<row> rows = {
      {"own stdout", true, {}, true},
      {"own syslog", false, {}, false},
      {"global stdout over own syslog", false, true, true},
      {"global syslog over own stdout", true, false, false},
      {"global syslog, own syslog", false, false, false},
  };
  for (const auto& r : rows) {
    cdl::log_impl::_global_print_on_stdout = r.global;
    const cdl::log log(log_type::os, log_facility::local2, "", log_priority::info, r.own_choice);
    const std::string written = capture_stdout([&] { log.info("line"); });
    const auto seen = take_calls();
    if (r.on_stdout) {
      EXPECT_EQ(written, "os - line\n") << r.name;
      EXPECT_TRUE(seen.empty()) << r.name;
    } else {
      EXPECT_EQ(written, "") << r.name;
      ASSERT_EQ(seen.size(), 1U) << r.name;
      EXPECT_EQ(seen[0].message, "os - line") << r.name;
      EXPECT_EQ(seen[0].priority, 150) << r.name;
    }
  }
}

TEST_F(SyslogTest, SuppressedOrFilteredLinesAreNotSent) {
  const cdl::log log(log_type::generic, log_facility::local0, "n", log_priority::error, false);
  log.info("below the level");
  log.debug("below the level");
  cdl::log_impl::_global_log_line_filter = std::regex("generic - n - keep.*");
  log.error("drop this");
  log.error("keep this");
  const auto seen = take_calls();
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].message, "generic - n - keep this");
  EXPECT_EQ(seen[0].priority, 131);
}

}  // namespace
