// Converts any text to unsigned long and long in base 10, and compares the
// result with a conversion written out here digit by digit.
//
// Allowed outcomes: a value; cdl::unrecognized_value_error when no digits
// follow the optional white space and sign; cdl::not_in_range_error for an
// overflow, and for negative text in the unsigned form.
#include "fuzz_check.hpp"

#include <cdl/exception.hpp>
#include <cdl/utils.hpp>

#include <cctype>
#include <cstdint>
#include <limits>
#include <string>

namespace {

enum class kind { value, not_a_number, out_of_range };

struct expected {
  kind what = kind::not_a_number;
  bool negative = false;
  unsigned __int128 magnitude = 0;
  size_t end = 0;  // one past the last digit
};

// White space, an optional sign, then decimal digits; the magnitude
// saturates just above 2^64, which is out of range for both forms.
expected reference(const std::string& text) {
  expected out;
  size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) out.negative = text[i++] == '-';
  const size_t first_digit = i;
  const unsigned __int128 cap = static_cast<unsigned __int128>(1) << 65;
  while (i < text.size() && text[i] >= '0' && text[i] <= '9') {
    out.magnitude = out.magnitude * 10 + static_cast<unsigned>(text[i] - '0');
    if (out.magnitude > cap) out.magnitude = cap;
    ++i;
  }
  if (i == first_digit) return out;
  out.what = kind::value;
  out.end = i;
  return out;
}

void check_unsigned(const std::string& text) {
  const expected e = reference(text);
  kind got = kind::value;
  unsigned long value = 0;
  unsigned long position = 0;
  try {
    value = cdl::from_str<unsigned long>(text, &position, 10);
  } catch (const cdl::unrecognized_value_error&) {
    got = kind::not_a_number;
  } catch (const cdl::not_in_range_error&) {
    got = kind::out_of_range;
  }
  kind want = e.what;
  if (want == kind::value && (e.negative || e.magnitude > std::numeric_limits<unsigned long>::max())) {
    want = kind::out_of_range;
  }
  FUZZ_CHECK(got == want);
  if (got == kind::value) {
    FUZZ_CHECK(value == e.magnitude);
    FUZZ_CHECK(position == e.end);
  }
}

void check_signed(const std::string& text) {
  const expected e = reference(text);
  kind got = kind::value;
  long value = 0;
  unsigned long position = 0;
  try {
    value = cdl::from_str<long>(text, &position, 10);
  } catch (const cdl::unrecognized_value_error&) {
    got = kind::not_a_number;
  } catch (const cdl::not_in_range_error&) {
    got = kind::out_of_range;
  }
  const unsigned __int128 limit = static_cast<unsigned __int128>(std::numeric_limits<long>::max()) + (e.negative ? 1 : 0);
  kind want = e.what;
  if (want == kind::value && e.magnitude > limit) want = kind::out_of_range;
  FUZZ_CHECK(got == want);
  if (got == kind::value) {
    const __int128 signed_magnitude = static_cast<__int128>(e.magnitude);
    FUZZ_CHECK(static_cast<__int128>(value) == (e.negative ? -signed_magnitude : signed_magnitude));
    FUZZ_CHECK(position == e.end);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check_unsigned(text);
  check_signed(text);
  return 0;
}
