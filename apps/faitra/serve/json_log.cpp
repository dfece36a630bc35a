#include "serve/json_log.hpp"

#include <cdl/json_writer.hpp>
#include <cdl/log.hpp>

#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

namespace faitra_cli {

namespace {

std::atomic<bool> json_log{false};

const char* const LEVELS[] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};

std::string utc_now() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  ::gmtime_r(&now.tv_sec, &parts);
  char text[40];
  const size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%03ldZ", now.tv_nsec / 1000000);
  return text;
}

void member(cdl::json_writer& w, const char* name, const std::string& value) {
  w.key(name, true);
  w.value<std::string>(value);
}

// Splits "<type> - <name> - <message>" (or "<type> - <message>"). A line
// that does not start with a type label is not the front end's: all of it
// is the message. Log names hold no spaces.
void write_line(int priority, const std::string& line) {
  std::string type, component, message = line;
  const size_t first = line.find(" - ");
  for (const std::string& label : cdl::log_type_labels) {
    if (first == std::string::npos || line.compare(0, first, label) != 0 || label.size() != first) continue;
    type = label;
    message = line.substr(first + 3);
    const size_t second = message.find(" - ");
    if (second != std::string::npos && second > 0 && message.find(' ') == second) {
      component = message.substr(0, second);
      message = message.substr(second + 3);
    }
  }
  const int level = priority & LOG_PRIMASK;
  const int facility = (priority & LOG_FACMASK) >> 3;
  cdl::json_writer w;
  w.begin_object();
  member(w, "time", utc_now());
  member(w, "level", LEVELS[level]);
  w.key("priority", true);
  w.value<long>(level);
  if (facility >= 16 && facility < 24) member(w, "facility", cdl::log_facility_names[facility - 16]);
  if (!type.empty()) member(w, "type", type);
  if (!component.empty()) member(w, "component", component);
  member(w, "message", message);
  w.end_object();
  std::string text = w.take();
  text += '\n';
  for (size_t done = 0; done < text.size();) {
    const ssize_t n = ::write(STDOUT_FILENO, text.data() + done, text.size() - done);
    if (n <= 0) return;
    done += static_cast<size_t>(n);
  }
}

void forward(int priority, const char* format, va_list args) {
  if (!json_log.load(std::memory_order_relaxed)) {
    ::vsyslog(priority, format, args);
    return;
  }
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  std::string line(length > 0 ? static_cast<size_t>(length) : 0, '\0');
  if (length > 0) std::vsnprintf(line.data(), line.size() + 1, format, args);
  write_line(priority, line);
}

}  // namespace

void use_json_log() { json_log.store(true); }

}  // namespace faitra_cli

// The C library's entry points for a log line: the plain one, and the one
// that callers built with _FORTIFY_SOURCE reach.
extern "C" void syslog(int priority, const char* format, ...) {
  va_list args;
  va_start(args, format);
  faitra_cli::forward(priority, format, args);
  va_end(args);
}

extern "C" void __syslog_chk(int priority, int /*flag*/, const char* format, ...) {
  va_list args;
  va_start(args, format);
  faitra_cli::forward(priority, format, args);
  va_end(args);
}
