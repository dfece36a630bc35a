// The logging front end: cdl::log and its printf-style write operations.
//
// A line reads "<type label> - <log name> - <message>", or
// "<type label> - <message>" when the log has no name. It goes to standard
// output (with a newline and a flush) or to syslog with the priority OR-ed
// with the log's facility, never to both. Which priorities a log emits is the
// host runtime's decision (log_impl::should_log_impl); the host also owns two
// process-wide overrides: a regular expression that a whole line must match,
// and a forced choice of standard output over syslog.
//
// Components receive a `cdl::log*` that may be null and test it before every
// call; the front end itself never checks.
//
// Thread-safety: the front end holds no state and takes no lock; lines
// written at the same moment to standard output may interleave. The global
// overrides are read without synchronisation: set them before threads start.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/format.hpp>
#include <cdl/nullable.hpp>

#include <syslog.h>

#include <cstdint>
#include <cstdio>
#include <regex>
#include <string>
#include <vector>

namespace cdl {

struct log_type {
  enum value : uint32_t {
    generic = 0,
    os = 1,
    threading = 2,
    task_system = 3,
    app_logic = 4,
    database = 5,
    config = 6,
    hardware = 7,
    ui = 8,
  };
};

struct log_facility {
  enum value : int32_t {
    local0 = 128,
    local1 = 136,
    local2 = 144,
    local3 = 152,
    local4 = 160,
    local5 = 168,
    local6 = 176,
    local7 = 184,
  };
};

struct log_priority {
  enum value : int32_t {
    emerg = 0,
    alert = 1,
    crit = 2,
    error = 3,
    warning = 4,
    notice = 5,
    info = 6,
    debug = 7,
  };
};

// Header constants: each translation unit builds its own copy.
static const std::vector<std::string> log_type_labels = {
    "generic", "os", "threading", "task_system", "app_logic", "database", "config", "hardware", "ui",
};
static const std::vector<log_facility::value> log_facilities = {
    log_facility::local0, log_facility::local1, log_facility::local2, log_facility::local3,
    log_facility::local4, log_facility::local5, log_facility::local6, log_facility::local7,
};
static const std::vector<std::string> log_facility_names = {
    "local0", "local1", "local2", "local3", "local4", "local5", "local6", "local7",
};

class log_impl {
 public:
  log_impl(log_type::value type, log_facility::value facility, std::string name, log_priority::value level,
           bool print_on_stdout)
      : type(type), facility(facility), name(std::move(name)), level(level), print_on_stdout(print_on_stdout) {}

  template <typename... Args>
  void write(log_priority::value priority, const std::string& fmt, const Args&... args) const {
    write_impl(facility, type, name, level, priority, print_on_stdout, fmt, args...);
  }
  template <typename... Args>
  void critical(const std::string& fmt, const Args&... args) const {
    write(log_priority::crit, fmt, args...);
  }
  template <typename... Args>
  void error(const std::string& fmt, const Args&... args) const {
    write(log_priority::error, fmt, args...);
  }
  template <typename... Args>
  void info(const std::string& fmt, const Args&... args) const {
    write(log_priority::info, fmt, args...);
  }
  template <typename... Args>
  void debug(const std::string& fmt, const Args&... args) const {
    write(log_priority::debug, fmt, args...);
  }

  template <typename... Args>
  static void write_impl(log_facility::value facility, log_type::value type, const std::string& name,
                         log_priority::value level, log_priority::value priority, bool print_on_stdout,
                         const std::string& fmt, const Args&... args) {
    const std::string body = format_str(fmt, args...);
    if (type >= log_type_labels.size()) {
      throw exception(CDL_FILE_NAME, 253, "Invalid log_type: %lu", static_cast<unsigned long>(type));
    }
    if (!should_log_impl(name, level, priority)) return;
    const std::string line = name.empty()
                                 ? format_str("%s - %s", log_type_labels[type], body)
                                 : format_str("%s - %s - %s", log_type_labels[type], name, body);
    if (!_global_log_line_filter.is_null() && !std::regex_match(line, *_global_log_line_filter)) return;
    if (should_print_on_stdout_impl(print_on_stdout)) {
      std::fputs(line.c_str(), stdout);
      std::fputc('\n', stdout);
      std::fflush(stdout);
    } else {
      ::syslog(static_cast<int>(priority) | static_cast<int>(facility), "%s", line.c_str());
    }
  }

  static bool should_print_on_stdout_impl(bool own_choice) {
    return _global_print_on_stdout.is_null() ? own_choice : *_global_print_on_stdout;
  }

  // Host runtime: whether a line of `priority` from the log `name` with the
  // threshold `level` is emitted. Must be a pure predicate.
  static bool should_log_impl(const std::string& name, log_priority::value level, log_priority::value priority);

  // Host runtime: the process-wide overrides.
  static nullable<std::regex> _global_log_line_filter;
  static nullable<bool> _global_print_on_stdout;

  log_type::value type;
  log_facility::value facility;
  std::string name;
  log_priority::value level;
  bool print_on_stdout;
};

class log : public log_impl {
 public:
  using log_impl::log_impl;
};

}  // namespace cdl
