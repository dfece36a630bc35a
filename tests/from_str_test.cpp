// Numeric parsing of attribute texts and the shared validation constraints.
#include <cdl/utils.hpp>
#include <cdl/validation.hpp>

#include <gtest/gtest.h>

#include <string>

namespace {

// Parses `text` as T; returns the value, or "<kind>: <message>@<file>:<line>".
template <typename T>
std::string parsed(const std::string& text) {
  try {
    return std::to_string(cdl::from_str<T>(text, nullptr, 10));
  } catch (const cdl::unrecognized_value_error& e) {
    return std::string("nan: ") + e.what() + "@" + e.file() + ":" + std::to_string(e.line());
  } catch (const cdl::not_in_range_error& e) {
    return std::string("range: ") + e.what() + "@" + e.file() + ":" + std::to_string(e.line());
  }
}

TEST(FromStr, ResultsAndErrorsAtTheBoundaries) {
  const std::string u_range = " is not in range. It must be between 0 and 18446744073709551615@utils.hpp:324";
  const std::string l_range =
      " is not in range. It must be between -9223372036854775808 and 9223372036854775807@utils.hpp:293";
  const std::pair<std::string, std::string> unsigned_cases[] = {
      {"18446744073709551615", "18446744073709551615"},
      // Negative text is out of range, not wrapped around nor a non-number.
      {"-1", "range: -1" + u_range},
      {" -5", "range:  -5" + u_range},
      {"18446744073709551616", "range: 18446744073709551616" + u_range},
      {"abc", "nan: abc is not a number.@utils.hpp:317"},
      {"", "nan:  is not a number.@utils.hpp:317"},
  };
  for (const auto& [text, expected] : unsigned_cases) EXPECT_EQ(parsed<unsigned long>(text), expected) << text;
  const std::pair<std::string, std::string> signed_cases[] = {
      {"-9223372036854775808", "-9223372036854775808"},
      {"9223372036854775807", "9223372036854775807"},
      {"9223372036854775808", "range: 9223372036854775808" + l_range},
      {"-9223372036854775809", "range: -9223372036854775809" + l_range},
      {"abc", "nan: abc is not a number.@utils.hpp:286"},
  };
  for (const auto& [text, expected] : signed_cases) EXPECT_EQ(parsed<long>(text), expected) << text;
}

TEST(Constraints, PortBoundsAreInclusiveAndAFailureNamesTheConstraint) {
  for (const auto& [port, valid] : {std::pair{0UL, false}, {1UL, true}, {65535UL, true}, {65536UL, false}}) {
    EXPECT_EQ(csl::PORT_CONSTRAINT.is_valid(port), valid) << port;
    if (valid) {
      EXPECT_EQ(csl::PORT_CONSTRAINT.assertion(port), port);
    }
  }
  try {
    csl::PORT_CONSTRAINT.assertion(0);
    FAIL() << "port 0 was accepted";
  } catch (const cdl::exception& e) {
    EXPECT_STREQ(e.what(), "Assertion failure (port_constraint)");
    EXPECT_EQ(e.file(), "validation.hpp");
    EXPECT_EQ(e.line(), 166u);
  }
}

TEST(Constraints, DisabledConstraintAcceptsEverything) {
  cdl::numeric_constraint<unsigned long> port(1, 65535, "port", "Ports must be between 1 and 65535.");
  cdl::functional_constraint<std::string> never([](const std::string&) { return false; }, "never", "Never valid.");
  port.set_disabled(true);
  never.set_disabled(true);
  EXPECT_EQ(port.assertion(0), 0UL);
  EXPECT_EQ(port.assertion(65536), 65536UL);
  EXPECT_EQ(never.assertion("anything"), "anything");
}

TEST(Constraints, HostnameOrAddress) {
  const std::pair<const char*, bool> cases[] = {
      {"capture-01.example.org", true}, {"a", true},        {"192.168.1.1", true},       {"::1", true},
      {"fe80::1ff:fe23:4567:890a", true}, {"", false},      {"-leading.example", false}, {"trailing-.x", false},
      {"under_score", false},           {"two..dots", false}, {"fe80::zz", false},
  };
  for (const auto& [text, valid] : cases) EXPECT_EQ(csl::IPV4V6HOSTNAME_CONSTRAINT.is_valid(text), valid) << text;
  EXPECT_FALSE(csl::HOSTNAME_CONSTRAINT.is_valid("::1"));  // reached through the address checks
}

}  // namespace
