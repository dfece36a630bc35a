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
  static cdl::log on_stdout(log_type::value type, const std::string& name, log_priority::value level) {
    return cdl::log(type, log_facility::local0, name, level, true);
  }
};

TEST_F(LogTest, LineCarriesLabelNameAndABodyFormattedOnce) {
  const std::vector<std::string> labels = {"generic",  "os",     "threading", "task_system", "app_logic",
                                           "database", "config", "hardware",  "ui"};
  ASSERT_EQ(cdl::log_type_labels, labels);
  for (unsigned type = 0; type < labels.size(); ++type) {
    const auto log = on_stdout(static_cast<log_type::value>(type), "cache", log_priority::debug);
    EXPECT_EQ(capture_stdout([&] { log.info("%s has %lu%%", "/d", 12UL); }), labels[type] + " - cache - /d has 12%\n");
  }
  const auto unnamed = on_stdout(log_type::database, "", log_priority::debug);
  EXPECT_EQ(capture_stdout([&] { unnamed.error("%s", "50%s %d"); }), "database - 50%s %d\n");
}

TEST_F(LogTest, LevelDecidesWhichPrioritiesAreWritten) {
  const struct {
    log_priority::value level, priority;
    bool written;
  } rows[] = {
      {log_priority::info, log_priority::info, true},   {log_priority::info, log_priority::debug, false},
      {log_priority::emerg, log_priority::emerg, true}, {log_priority::emerg, log_priority::alert, false},
      {log_priority::debug, log_priority::debug, true}, {log_priority::error, log_priority::warning, false},
  };
  for (const auto& r : rows) {
    const auto log = on_stdout(log_type::os, "n", r.level);
    EXPECT_EQ(capture_stdout([&] { log.write(r.priority, "x"); }), r.written ? "os - n - x\n" : "")
        << r.level << "/" << r.priority;
  }
}

TEST_F(LogTest, FilterMustMatchTheWholeLine) {
  const std::pair<const char*, bool> rows[] = {
      {"database - cache - re.*", true}, {".*ready", true}, {"ready", false}, {"database - cache", false},
  };
  const auto log = on_stdout(log_type::database, "cache", log_priority::debug);
  for (const auto& [pattern, written] : rows) {
    cdl::log_impl::_global_log_line_filter = std::regex(pattern);
    EXPECT_EQ(capture_stdout([&] { log.info("ready"); }), written ? "database - cache - ready\n" : "") << pattern;
  }
}

TEST_F(LogTest, InvalidLogTypeIsRaisedEvenWhenThePriorityIsSuppressed) {
  for (unsigned long type : {9UL, 4294967295UL}) {
    std::string written;
    try {
      written = capture_stdout([&] {
        cdl::log_impl::write_impl(log_facility::local0, static_cast<log_type::value>(type), "n", log_priority::emerg,
                                  log_priority::debug, true, "x");
      });
      ADD_FAILURE() << "type " << type << " accepted";
    } catch (const cdl::exception& e) {
      EXPECT_EQ(std::string(e.what()), "Invalid log_type: " + std::to_string(type));
      EXPECT_EQ(e.file(), "log.hpp");
      EXPECT_EQ(e.line(), 253UL);
    }
    EXPECT_EQ(written, "");
  }
}

}  // namespace
