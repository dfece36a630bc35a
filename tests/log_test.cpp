// The logging front end on standard output: line forms, the level rule, the
// process-wide line filter and output override, and the log type check.
#include <cdl/log.hpp>

#include "support/stdout_capture.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using cdl::log_facility;
using cdl::log_priority;
using cdl::log_type;
using faitra_test::capture_stdout;

// Every test leaves the process-wide overrides unset.
class LogTest : public ::testing::Test {
 protected:
  void SetUp() override { reset(); }
  void TearDown() override { reset(); }
  static void reset() {
    cdl::log_impl::_global_log_line_filter = cdl::nullable<std::regex>();
    cdl::log_impl::_global_print_on_stdout = cdl::nullable<bool>();
  }
};

cdl::log stdout_log(log_type::value type, const std::string& name, log_priority::value level = log_priority::debug) {
  return cdl::log(type, log_facility::local0, name, level, true);
}

TEST_F(LogTest, LineCarriesLabelNameAndBody) {
  const std::vector<std::string> labels = {"generic",   "os",     "threading", "task_system", "app_logic",
                                           "database",  "config", "hardware",  "ui"};
  ASSERT_EQ(cdl::log_type_labels, labels);
  for (unsigned type = 0; type < labels.size(); ++type) {
    const auto log = stdout_log(static_cast<log_type::value>(type), "cache");
    EXPECT_EQ(capture_stdout([&] { log.info("ready"); }), labels[type] + " - cache - ready\n");
  }

  const auto named = stdout_log(log_type::database, "cache");
  const auto unnamed = stdout_log(log_type::database, "");
  EXPECT_EQ(capture_stdout([&] { unnamed.error("ready"); }), "database - ready\n");
  EXPECT_EQ(capture_stdout([&] { named.error("%s has %lu files", "/d", 12UL); }),
            "database - cache - /d has 12 files\n");
  EXPECT_EQ(capture_stdout([&] { named.debug("%s and %s", std::string("a"), "b"); }),
            "database - cache - a and b\n");
  EXPECT_EQ(capture_stdout([&] { unnamed.critical("%ld%%", -3L); }), "database - -3%\n");
  // The body is formatted once: conversions reaching it through an argument
  // stay as they are.
  EXPECT_EQ(capture_stdout([&] { named.error("%s", "50%s %d"); }), "database - cache - 50%s %d\n");
}

TEST_F(LogTest, LevelDecidesWhichPrioritiesAreWritten) {
  struct row {
    log_priority::value level, priority;
    bool written;
  };
  const std::vector<row> rows = {
      {log_priority::info, log_priority::error, true},   {log_priority::info, log_priority::info, true},
      {log_priority::info, log_priority::debug, false},  {log_priority::error, log_priority::warning, false},
      {log_priority::emerg, log_priority::emerg, true},  {log_priority::emerg, log_priority::alert, false},
      {log_priority::debug, log_priority::debug, true},
  };
  for (const auto& r : rows) {
    EXPECT_EQ(cdl::log_impl::should_log_impl("n", r.level, r.priority), r.written) << r.level << "/" << r.priority;
    const auto log = stdout_log(log_type::os, "n", r.level);
    EXPECT_EQ(capture_stdout([&] { log.write(r.priority, "x"); }), r.written ? "os - n - x\n" : "")
        << r.level << "/" << r.priority;
  }
  const auto warning_log = stdout_log(log_type::os, "", log_priority::warning);
  EXPECT_EQ(capture_stdout([&] {
              warning_log.critical("c");
              warning_log.error("e");
              warning_log.info("i");
              warning_log.debug("d");
            }),
            "os - c\nos - e\n");
}

TEST_F(LogTest, FilterMustMatchTheWholeLine) {
  struct row {
    const char* pattern;
    bool written;
  };
  const std::vector<row> rows = {
      {"database - cache - re.*", true}, {".*ready", true},          {"ready", false},
      {"cache - ready", false},          {"database - cache", false}, {"database - ready", false},
      {"[a-z]+ - [a-z]+ - [a-z]+", true},
  };
  const auto log = stdout_log(log_type::database, "cache");
  for (const auto& r : rows) {
    cdl::log_impl::_global_log_line_filter = std::regex(r.pattern);
    EXPECT_EQ(capture_stdout([&] { log.info("ready"); }), r.written ? "database - cache - ready\n" : "")
        << r.pattern;
  }
}

TEST_F(LogTest, GlobalStdoutChoiceOverridesTheLogsOwn) {
  EXPECT_FALSE(cdl::log_impl::should_print_on_stdout_impl(false));
  EXPECT_TRUE(cdl::log_impl::should_print_on_stdout_impl(true));
  cdl::log_impl::_global_print_on_stdout = true;
  EXPECT_TRUE(cdl::log_impl::should_print_on_stdout_impl(false));
  const cdl::log syslog_log(log_type::ui, log_facility::local3, "", log_priority::info, false);
  EXPECT_EQ(capture_stdout([&] { syslog_log.info("shown"); }), "ui - shown\n");
  cdl::log_impl::_global_print_on_stdout = false;
  EXPECT_FALSE(cdl::log_impl::should_print_on_stdout_impl(true));
}

TEST_F(LogTest, InvalidLogTypeIsRaisedEvenWhenThePriorityIsSuppressed) {
  for (unsigned long type : {9UL, 4294967295UL}) {
    const auto bad = static_cast<log_type::value>(type);
    std::string written;
    try {
      written = capture_stdout([&] {
        cdl::log_impl::write_impl(log_facility::local0, bad, "n", log_priority::emerg, log_priority::debug, true,
                                  "x");
      });
      ADD_FAILURE() << "type " << type << " accepted";
    } catch (const cdl::exception& e) {
      EXPECT_EQ(std::string(e.what()), "Invalid log_type: " + std::to_string(type));
      EXPECT_EQ(e.file(), "log.hpp");
      EXPECT_EQ(e.line(), 253UL);
    }
    EXPECT_EQ(written, "");
  }
  // The last valid type is accepted.
  EXPECT_EQ(capture_stdout([] {
              cdl::log_impl::write_impl(log_facility::local0, static_cast<log_type::value>(8), "", log_priority::info,
                                        log_priority::info, true, "%s", "ok");
            }),
            "ui - ok\n");
}

}  // namespace
