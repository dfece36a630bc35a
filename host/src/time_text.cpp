#include <faitra/host/time_text.hpp>

#include <chrono>
#include <cstdio>
#include <limits>

namespace faitra_host {

namespace {

constexpr uint64_t MAX_NS = std::numeric_limits<uint64_t>::max();
constexpr int64_t SECONDS_PER_DAY = 86400;

const char* const TIME_FORMS = "expected ns, RFC 3339 or a relative time like -5m";
const char* const DURATION_FORMS =
    "expected seconds, or numbers with units d, h, m, s, ms, us, ns like 7d or 1h30m";

struct unit {
  std::string_view name;
  uint64_t ns;
};
// Longest names first where one is a prefix of another ("ms" before "m").
constexpr unit UNITS[] = {{"d", 86400 * NS_PER_SECOND}, {"h", 3600 * NS_PER_SECOND}, {"ms", 1000000},
                          {"m", 60 * NS_PER_SECOND},    {"s", NS_PER_SECOND},        {"us", 1000},
                          {"ns", 1}};

bool is_digit(char c) { return c >= '0' && c <= '9'; }

bool all_digits(std::string_view text) {
  if (text.empty()) return false;
  for (const char c : text) {
    if (!is_digit(c)) return false;
  }
  return true;
}

// value * factor + add, or nothing on overflow.
std::optional<uint64_t> checked(uint64_t value, uint64_t factor, uint64_t add) {
  if (factor != 0 && value > (MAX_NS - add) / factor) return std::nullopt;
  return value * factor + add;
}

// The digits in `text` as an integer, or nothing when it does not fit.
std::optional<uint64_t> digits_value(std::string_view text) {
  uint64_t value = 0;
  for (const char c : text) {
    const auto next = checked(value, 10, static_cast<uint64_t>(c - '0'));
    if (!next) return std::nullopt;
    value = *next;
  }
  return value;
}

std::optional<uint64_t> fail(std::string& error, std::string_view text, const std::string& what,
                             const char* problem) {
  error = std::string(text) + " is not " + what + ": " + problem;
  return std::nullopt;
}

// Reads `count` digits at `at` as a number; false when they are not all digits.
bool fixed_digits(std::string_view text, size_t at, size_t count, int& out) {
  if (at + count > text.size()) return false;
  out = 0;
  for (size_t i = at; i < at + count; ++i) {
    if (!is_digit(text[i])) return false;
    out = out * 10 + (text[i] - '0');
  }
  return true;
}

std::optional<uint64_t> parse_rfc3339(std::string_view text, std::string& error) {
  const char* const form = "expected ns, RFC 3339 (2026-11-23T10:02:00Z) or a relative time like -5m";
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (!fixed_digits(text, 0, 4, year) || text.size() < 10 || text[4] != '-' || !fixed_digits(text, 5, 2, month) ||
      text[7] != '-' || !fixed_digits(text, 8, 2, day)) {
    return fail(error, text, "a time", form);
  }
  using namespace std::chrono;
  const year_month_day date{std::chrono::year{year}, std::chrono::month{static_cast<unsigned>(month)},
                            std::chrono::day{static_cast<unsigned>(day)}};
  if (!date.ok()) return fail(error, text, "a time", "no such date");
  const int64_t days = sys_days(date).time_since_epoch().count();
  uint64_t fraction_ns = 0;
  int64_t offset_seconds = 0;
  if (text.size() > 10) {
    const char t = text[10];
    if ((t != 'T' && t != 't' && t != ' ') || text.size() < 19 || !fixed_digits(text, 11, 2, hour) ||
        text[13] != ':' || !fixed_digits(text, 14, 2, minute) || text[16] != ':' ||
        !fixed_digits(text, 17, 2, second)) {
      return fail(error, text, "a time", "expected hours, minutes and seconds as in 2026-11-23T10:02:00Z");
    }
    if (hour > 23 || minute > 59 || second > 60) return fail(error, text, "a time", "no such time of day");
    size_t at = 19;
    if (at < text.size() && text[at] == '.') {
      const size_t first = ++at;
      while (at < text.size() && is_digit(text[at])) ++at;
      if (at == first) return fail(error, text, "a time", "a fraction needs digits after the point");
      if (at - first > 9) return fail(error, text, "a time", "more than 9 fractional digits (finer than ns)");
      for (size_t i = first; i < first + 9; ++i) fraction_ns = fraction_ns * 10 + (i < at ? text[i] - '0' : 0);
    }
    const std::string_view zone = text.substr(at);
    int zone_hours = 0, zone_minutes = 0;
    if (zone == "Z" || zone == "z") {
    } else if (zone.size() == 6 && (zone[0] == '+' || zone[0] == '-') && fixed_digits(zone, 1, 2, zone_hours) &&
               zone[3] == ':' && fixed_digits(zone, 4, 2, zone_minutes)) {
      if (zone_hours > 23 || zone_minutes > 59) return fail(error, text, "a time", "no such offset");
      offset_seconds = (zone_hours * 3600 + zone_minutes * 60) * (zone[0] == '-' ? -1 : 1);
    } else {
      return fail(error, text, "a time", "expected Z or an offset like +01:00 after the time");
    }
  }
  const int64_t seconds = days * SECONDS_PER_DAY + hour * 3600 + minute * 60 + second - offset_seconds;
  if (seconds < 0) return fail(error, text, "a time", "before 1970-01-01T00:00:00Z");
  const auto ns = checked(static_cast<uint64_t>(seconds), NS_PER_SECOND, fraction_ns);
  if (!ns) return fail(error, text, "a time", "after 2554-07-21T23:34:33.709551615Z, the last ns that fits 64 bits");
  return ns;
}

}  // namespace

std::optional<uint64_t> parse_duration_ns(std::string_view text, std::string& error) {
  if (text.empty()) return fail(error, text, "a duration", DURATION_FORMS);
  if (all_digits(text)) {
    const auto seconds = digits_value(text);
    const auto ns = seconds ? checked(*seconds, NS_PER_SECOND, 0) : std::nullopt;
    if (!ns) return fail(error, text, "a duration", "longer than 64 bits of ns (about 584 years)");
    return ns;
  }
  uint64_t total = 0;
  size_t at = 0;
  while (at < text.size()) {
    const size_t first = at;
    while (at < text.size() && is_digit(text[at])) ++at;
    if (at == first) return fail(error, text, "a duration", DURATION_FORMS);
    const auto number = digits_value(text.substr(first, at - first));
    const unit* found = nullptr;
    for (const unit& u : UNITS) {
      if (text.substr(at, u.name.size()) == u.name) {
        found = &u;
        break;
      }
    }
    if (found == nullptr) return fail(error, text, "a duration", DURATION_FORMS);
    at += found->name.size();
    const auto sum = number ? checked(*number, found->ns, total) : std::nullopt;
    if (!sum) return fail(error, text, "a duration", "longer than 64 bits of ns (about 584 years)");
    total = *sum;
  }
  return total;
}

std::optional<uint64_t> parse_time_ns(std::string_view text, uint64_t now_ns, std::string& error) {
  if (text.empty()) return fail(error, text, "a time", TIME_FORMS);
  if (text == "now") return now_ns;
  if (all_digits(text)) {
    const auto ns = digits_value(text);
    if (!ns) return fail(error, text, "a time", "more nanoseconds than fit 64 bits");
    return ns;
  }
  if (text[0] == '-' || text[0] == '+') {
    const std::string_view rest = text.substr(1);
    if (all_digits(rest)) return fail(error, text, "a time", "a relative time needs a unit, like -5m or +1h");
    std::string ignored;
    const auto shift = parse_duration_ns(rest, ignored);
    if (!shift) return fail(error, text, "a time", TIME_FORMS);
    if (text[0] == '-') {
      if (*shift > now_ns) return fail(error, text, "a time", "before 1970-01-01T00:00:00Z");
      return now_ns - *shift;
    }
    if (*shift > MAX_NS - now_ns) return fail(error, text, "a time", "too far ahead to fit 64 bits of ns");
    return now_ns + *shift;
  }
  if (text.size() >= 10 && is_digit(text[0]) && text[4] == '-') return parse_rfc3339(text, error);
  return fail(error, text, "a time", TIME_FORMS);
}

std::string format_time_ns(uint64_t ns) {
  using namespace std::chrono;
  const auto seconds = static_cast<int64_t>(ns / NS_PER_SECOND);
  const sys_days day{days{seconds / SECONDS_PER_DAY}};
  const year_month_day date{day};
  const int64_t in_day = seconds % SECONDS_PER_DAY;
  char text[64];
  int length = std::snprintf(text, sizeof text, "%04d-%02u-%02uT%02d:%02d:%02d", static_cast<int>(date.year()),
                             static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                             static_cast<int>(in_day / 3600), static_cast<int>(in_day / 60 % 60),
                             static_cast<int>(in_day % 60));
  if (const uint64_t fraction = ns % NS_PER_SECOND; fraction != 0) {
    length += std::snprintf(text + length, sizeof text - static_cast<size_t>(length), ".%09lu",
                            static_cast<unsigned long>(fraction));
    while (text[length - 1] == '0') --length;
  }
  return std::string(text, static_cast<size_t>(length)) + "Z";
}

std::string format_duration_ns(uint64_t ns) {
  if (ns == 0) return "0s";
  std::string out;
  for (const unit& u : {UNITS[0], UNITS[1], UNITS[3], UNITS[4], UNITS[2], UNITS[5], UNITS[6]}) {
    if (ns >= u.ns) {
      out += std::to_string(ns / u.ns) + std::string(u.name);
      ns %= u.ns;
    }
  }
  return out;
}

uint64_t wall_clock_ns() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

}  // namespace faitra_host
