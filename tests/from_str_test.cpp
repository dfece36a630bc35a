// Numeric parsing of attribute texts and the shared validation constraints.
#include <cdl/utils.hpp>
#include <cdl/validation.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

// What a call is expected to do: return `value`, or raise an exception of
// the given kind with exactly this message, recorded at this file and line.
enum class outcome { value, not_a_number, out_of_range };

template <typename T>
struct parse_case {
  std::string text;
  outcome expected;
  T value;
  std::string message;
  unsigned long line;
};

template <typename T>
void check_parse(const parse_case<T>& c) {
  SCOPED_TRACE("text \"" + c.text + "\"");
  try {
    const T parsed = cdl::from_str<T>(c.text, nullptr, 10);
    ASSERT_EQ(c.expected, outcome::value) << "parsed as " << parsed << " instead of raising";
    EXPECT_EQ(parsed, c.value);
  } catch (const cdl::unrecognized_value_error& e) {
    EXPECT_EQ(c.expected, outcome::not_a_number) << e.what();
    EXPECT_EQ(std::string(e.what()), c.message);
    EXPECT_EQ(e.file(), "utils.hpp");
    EXPECT_EQ(e.line(), c.line);
  } catch (const cdl::not_in_range_error& e) {
    EXPECT_EQ(c.expected, outcome::out_of_range) << e.what();
    EXPECT_EQ(std::string(e.what()), c.message);
    EXPECT_EQ(e.file(), "utils.hpp");
    EXPECT_EQ(e.line(), c.line);
  }
}

TEST(FromStr, UnsignedResultsAndErrors) {
  const std::string range = " is not in range. It must be between 0 and 18446744073709551615";
  const parse_case<unsigned long> cases[] = {
      {"0", outcome::value, 0, "", 0},
      {"1700000000123456789", outcome::value, 1700000000123456789UL, "", 0},
      {"18446744073709551615", outcome::value, 18446744073709551615UL, "", 0},
      // Negative text is out of range, not a non-number, and is not wrapped
      // around as the standard conversion would do.
      {"-1", outcome::out_of_range, 0, "-1" + range, 324},
      {" -5", outcome::out_of_range, 0, " -5" + range, 324},
      {"18446744073709551616", outcome::out_of_range, 0, "18446744073709551616" + range, 324},
      {"99999999999999999999999", outcome::out_of_range, 0, "99999999999999999999999" + range, 324},
      {"abc", outcome::not_a_number, 0, "abc is not a number.", 317},
      {"", outcome::not_a_number, 0, " is not a number.", 317},
      {"-", outcome::not_a_number, 0, "- is not a number.", 317},
  };
  for (const auto& c : cases) check_parse(c);
}

TEST(FromStr, SignedResultsAndErrors) {
  const std::string range = " is not in range. It must be between -9223372036854775808 and 9223372036854775807";
  const parse_case<long> cases[] = {
      {"0", outcome::value, 0, "", 0},
      {"-42", outcome::value, -42, "", 0},
      {"1700000000", outcome::value, 1700000000L, "", 0},
      {"9223372036854775807", outcome::value, 9223372036854775807L, "", 0},
      {"-9223372036854775808", outcome::value, -9223372036854775807L - 1, "", 0},
      {"9223372036854775808", outcome::out_of_range, 0, "9223372036854775808" + range, 293},
      {"-9223372036854775809", outcome::out_of_range, 0, "-9223372036854775809" + range, 293},
      {"abc", outcome::not_a_number, 0, "abc is not a number.", 286},
  };
  for (const auto& c : cases) check_parse(c);
}

TEST(Constraints, PortBoundsAreInclusive) {
  struct {
    unsigned long port;
    bool valid;
  } const cases[] = {{0, false}, {1, true}, {80, true}, {65535, true}, {65536, false}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.port);
    EXPECT_EQ(csl::PORT_CONSTRAINT.is_valid(c.port), c.valid);
    if (c.valid) {
      EXPECT_EQ(csl::PORT_CONSTRAINT.assertion(c.port), c.port);
    } else {
      EXPECT_THROW(csl::PORT_CONSTRAINT.assertion(c.port), cdl::exception);
    }
  }
}

TEST(Constraints, FailedAssertionNamesTheConstraint) {
  try {
    csl::PORT_CONSTRAINT.assertion(0);
    FAIL() << "port 0 was accepted";
  } catch (const cdl::exception& e) {
    EXPECT_EQ(std::string(e.what()), "Assertion failure (port_constraint)");
    EXPECT_EQ(e.file(), "validation.hpp");
    EXPECT_EQ(e.line(), 166u);
  }
}

TEST(Constraints, DisabledConstraintAcceptsEverything) {
  cdl::numeric_constraint<unsigned long> port(1, 65535, "port", "Ports must be between 1 and 65535.");
  cdl::functional_constraint<std::string> never([](const std::string&) { return false; }, "never", "Never valid.");
  ASSERT_FALSE(port.is_valid(0));
  ASSERT_FALSE(never.is_valid("x"));

  port.set_disabled(true);
  never.set_disabled(true);
  for (unsigned long v : {0UL, 65536UL, 18446744073709551615UL}) {
    EXPECT_TRUE(port.is_valid(v)) << v;
    EXPECT_EQ(port.assertion(v), v);
  }
  EXPECT_TRUE(never.is_valid(""));
  EXPECT_EQ(never.assertion("anything"), "anything");
}

TEST(Constraints, HostnameOrAddress) {
  struct {
    const char* text;
    bool valid;
  } const cases[] = {
      {"localhost", true},
      {"capture-01.example.org", true},
      {"a", true},
      {"192.168.1.1", true},
      {"fe80::1ff:fe23:4567:890a", true},
      {"::1", true},
      {"", false},
      {"-leading.example", false},
      {"trailing-.example", false},
      {"under_score", false},
      {"two..dots", false},
      {"fe80::zz", false},
      {"host name", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    EXPECT_EQ(csl::IPV4V6HOSTNAME_CONSTRAINT.is_valid(c.text), c.valid);
  }
  // Addresses that the host-name expression does not accept still pass
  // through the address checks.
  ASSERT_FALSE(csl::HOSTNAME_CONSTRAINT.is_valid("::1"));
  EXPECT_TRUE(csl::IPV4V6HOSTNAME_CONSTRAINT.is_valid("::1"));
  EXPECT_EQ(csl::IPV4V6HOSTNAME_CONSTRAINT.name(), "hostname_ipv4_ipv6_constraint");
}

}  // namespace
