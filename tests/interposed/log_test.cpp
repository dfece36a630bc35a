// Log lines, read from syslog (recorded instead of sent): the line's form,
// the level and whole-line filter deciding what is written, the facility in
// the priority, the line passed as an argument so that a '%' in it is never
// read as a conversion, and the choice of standard output (the process-wide
// one first) keeping a line from syslog. Lines on standard output are
// checked end to end: the daemon's tests read its --log-stdout log.
#include <cdl/log.hpp>

#include "support/interpose.hpp"

#include <gtest/gtest.h>

namespace {

using cdl::log_priority;

TEST(Log, LinesCarryTypeNameAndFacilityAndGoToExactlyOneOutput) {
  const cdl::log db(cdl::log_type::database, cdl::log_facility::local1, "cache", log_priority::info, false);
  const cdl::log unnamed(cdl::log_type::ui, cdl::log_facility::local0, "", log_priority::debug, false);
  faitra_test::clear_records();
  db.error("%s at %lu%%", "50%s", 7UL);
  db.debug("below the level");
  unnamed.write(log_priority::emerg, "x");
  cdl::log_impl::_global_log_line_filter = std::regex("database - cache - re.*");
  db.info("ready");
  db.info("not ready");
  cdl::log_impl::_global_log_line_filter = cdl::nullable<std::regex>();
  const auto sent = faitra_test::syslog_lines();
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].priority, LOG_LOCAL1 | LOG_ERR);
  EXPECT_EQ(sent[0].format, "%s");
  EXPECT_EQ(sent[0].text, "database - cache - 50%s at 7%");
  EXPECT_EQ(sent[1].text, "ui - x");
  EXPECT_EQ(sent[2].text, "database - cache - ready");

  for (const auto& [own, global, to_syslog] : {std::tuple{true, cdl::nullable<bool>(), false},
                                               {false, cdl::nullable<bool>(true), false},
                                               {true, cdl::nullable<bool>(false), true}}) {
    faitra_test::clear_records();
    cdl::log_impl::_global_print_on_stdout = global;
    cdl::log(cdl::log_type::os, cdl::log_facility::local0, "n", log_priority::info, own).info("line");
    EXPECT_EQ(faitra_test::syslog_lines().size(), to_syslog ? 1u : 0u) << own << " " << global.is_null();
  }
  cdl::log_impl::_global_print_on_stdout = cdl::nullable<bool>();
}

}  // namespace
