#include "option_values.hpp"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace faitra_cli {

namespace {

// The log priorities in severity order; a priority's number is its index.
const char* const LOG_LEVELS[] = {"emerg", "alert", "crit", "error", "warning", "notice", "info", "debug"};

std::string number_text(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

bool all_digits(const std::string& text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Whether `text` is a complete number that strtod accepts (decimal,
// possibly with a fraction or an exponent; not hexadecimal, not nan or inf).
bool decimal_number(const std::string& text, double& value) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text.front())) != 0) return false;
  for (const char c : text) {
    if (std::isdigit(static_cast<unsigned char>(c)) == 0 && c != '.' && c != '-' && c != '+' && c != 'e' &&
        c != 'E') {
      return false;
    }
  }
  char* end = nullptr;
  errno = 0;
  value = std::strtod(text.c_str(), &end);
  return end == text.c_str() + text.size() && errno == 0;
}

}  // namespace

const char* const LOG_LEVEL_NAMES = "emerg, alert, crit, error, warning, notice, info or debug";

std::string unsigned_problem(const std::string& text, unsigned long min, unsigned long max) {
  const std::string expected =
      "expected a whole number from " + std::to_string(min) + " to " + std::to_string(max);
  if (!all_digits(text)) {
    double value = 0;
    if (!decimal_number(text, value)) return "'" + text + "' is not a number";
    if (value < 0) return text + " is negative; " + expected;
    return text + " is not a whole number; " + expected;
  }
  unsigned long value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error == std::errc::result_out_of_range || value > max) return text + " is too large; " + expected;
  if (value < min) return text + " is too small; " + expected;
  return {};
}

std::string number_problem(const std::string& text, double min, double max) {
  double value = 0;
  if (!decimal_number(text, value)) return "'" + text + "' is not a number";
  const std::string expected = std::isinf(max) ? "expected a number of at least " + number_text(min)
                                               : "expected a number from " + number_text(min) + " to " +
                                                     number_text(max);
  if (value < min) return text + (value < 0 ? " is negative; " : " is too small; ") + expected;
  if (value > max) return text + " is too large; " + expected;
  return {};
}

CLI::Validator unsigned_value(unsigned long min, unsigned long max) {
  return CLI::Validator([min, max](std::string& text) { return unsigned_problem(text, min, max); }, "");
}

CLI::Validator number_value(double min, double max) {
  return CLI::Validator([min, max](std::string& text) { return number_problem(text, min, max); }, "");
}

CLI::Validator suffix_value() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        return text.empty() ? "an empty suffix would make every file, '.' and '..' included, a capture"
                            : std::string();
      },
      "");
}

CLI::Validator log_level_value() {
  return CLI::Validator(
      [](std::string& text) -> std::string {
        std::string lower = text;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const auto* const found = std::find_if(std::begin(LOG_LEVELS), std::end(LOG_LEVELS),
                                               [&](const char* name) { return lower == name; });
        if (found == std::end(LOG_LEVELS)) {
          return "'" + text + "' is not a log level; expected " + LOG_LEVEL_NAMES;
        }
        text = std::to_string(found - std::begin(LOG_LEVELS));
        return {};
      },
      "");
}

}  // namespace faitra_cli
