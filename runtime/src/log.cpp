// The runtime's side of logging: the level rule and the global overrides.
#include <cdl/log.hpp>

namespace cdl {

nullable<std::regex> log_impl::_global_log_line_filter;
nullable<bool> log_impl::_global_print_on_stdout;

// A line is emitted when its priority is at least as urgent as the log's
// threshold (syslog numbering: a smaller number is more urgent).
bool log_impl::should_log_impl(const std::string& /*name*/, log_priority::value level,
                               log_priority::value priority) {
  return priority <= level;
}

}  // namespace cdl
