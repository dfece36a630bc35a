// Numeric helpers: range-checked casts and text-to-number parsing.
//
// cdl::from_str parses base-10 text into unsigned long or long and reports
// non-numbers as cdl::unrecognized_value_error and out-of-range values
// (including negative text for the unsigned form) as cdl::not_in_range_error.
//
// Thread-safety: pure functions.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/text.hpp>

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <stdexcept>
#include <string>

namespace cdl {

template <typename To, typename From>
To numeric_cast(From value) {
  const To result = static_cast<To>(value);
  if (static_cast<From>(result) != value) {
    throw not_in_range_error(CDL_FILE_NAME, 191, "numeric_cast: value out of range");
  }
  return result;
}

template <typename T>
T from_str(const std::string& text, unsigned long* position = nullptr, unsigned long base = 10);

// Text converts to itself.
template <>
inline std::string from_str<std::string>(const std::string& text, unsigned long* position, unsigned long) {
  if (position != nullptr) *position = text.size();
  return text;
}

template <>
inline unsigned long from_str<unsigned long>(const std::string& text, unsigned long* position,
                                             unsigned long base) {
  bool out_of_range = negative_number_str(text);
  unsigned long long value = 0;
  if (!out_of_range) {
    try {
      size_t consumed = 0;
      value = std::stoull(text, &consumed, static_cast<int>(base));
      if (position != nullptr) *position = consumed;
    } catch (const std::invalid_argument&) {
      throw unrecognized_value_error(CDL_FILE_NAME, 317, "%s is not a number.", text.c_str());
    } catch (const std::out_of_range&) {
      out_of_range = true;
    }
  }
  if (!out_of_range && value > std::numeric_limits<unsigned long>::max()) out_of_range = true;
  if (out_of_range) {
    throw not_in_range_error(CDL_FILE_NAME, 324, "%s is not in range. It must be between %lu and %lu", text.c_str(),
                             0UL, std::numeric_limits<unsigned long>::max());
  }
  return static_cast<unsigned long>(value);
}

template <>
inline long from_str<long>(const std::string& text, unsigned long* position, unsigned long base) {
  long long value = 0;
  try {
    size_t consumed = 0;
    value = std::stoll(text, &consumed, static_cast<int>(base));
    if (position != nullptr) *position = consumed;
  } catch (const std::invalid_argument&) {
    throw unrecognized_value_error(CDL_FILE_NAME, 286, "%s is not a number.", text.c_str());
  } catch (const std::out_of_range&) {
    throw not_in_range_error(CDL_FILE_NAME, 293, "%s is not in range. It must be between %ld and %lu", text.c_str(),
                             std::numeric_limits<long>::min(),
                             static_cast<unsigned long>(std::numeric_limits<long>::max()));
  }
  return static_cast<long>(value);
}

}  // namespace cdl
