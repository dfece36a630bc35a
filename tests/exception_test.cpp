// The exception family, throw_assert and the formatter behind both.
#include <cdl/exception.hpp>
#include <cdl/format.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

// Runs `raise`, which must throw T; returns the caught exception's message,
// file and line as "what|file|line".
template <typename T, typename F>
std::string caught(F&& raise) {
  try {
    raise();
  } catch (const T& e) {
    return std::string(e.what()) + "|" + e.file() + "|" + std::to_string(e.line());
  } catch (const std::exception& e) {
    return std::string("wrong type: ") + e.what();
  }
  return "nothing thrown";
}

TEST(ThrowAssert, EmptyFormatGivesAnEmptyMessage) {
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("a.cpp", 3, ""); }), "|a.cpp|3");
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("a.cpp", 4); }), "|a.cpp|4");
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("a.cpp", 5, "", "ignored"); }), "|a.cpp|5");
}

TEST(ThrowAssert, TextPassesTheFormatterTwice) {
  struct row {
    std::string expected;
    std::string got;
  };
  char mutable_text[] = "x%%y";
  const std::vector<row> rows = {
      {"100%|f.cpp|7", caught<cdl::assertion_failure>([] { cdl::throw_assert("f.cpp", 7, "%s", "100%%"); })},
      {"x%y|f.cpp|8", caught<cdl::assertion_failure>([&] { cdl::throw_assert("f.cpp", 8, "%s", mutable_text); })},
      {"50%|f.cpp|9", caught<cdl::assertion_failure>([] { cdl::throw_assert("f.cpp", 9, "50%%%%"); })},
      {"entry is null|f.cpp|10", caught<cdl::assertion_failure>([] { cdl::throw_assert("f.cpp", 10, "entry is null"); })},
  };
  for (const auto& r : rows) EXPECT_EQ(r.got, r.expected);
}

TEST(Exception, MessageIsFormattedExactlyOnce) {
  struct row {
    std::string expected;
    std::string got;
  };
  const std::vector<row> rows = {
      {"50%|g.cpp|1", caught<cdl::exception>([] { throw cdl::exception("g.cpp", 1, "50%%"); })},
      {"100%%|g.cpp|2", caught<cdl::exception>([] { throw cdl::exception("g.cpp", 2, "%s", "100%%"); })},
      {"|g.cpp|3", caught<cdl::exception>([] { throw cdl::exception("g.cpp", 3); })},
      {"Invalid log_type: 12|g.cpp|4",
       caught<cdl::exception>([] { throw cdl::exception("g.cpp", 4, "Invalid log_type: %lu", 12UL); })},
      {"port 70000 not in [1, 65535]|g.cpp|5",
       caught<cdl::not_in_range_error>([] {
         throw cdl::not_in_range_error("g.cpp", 5, "%s %lu not in [%lu, %lu]", "port", 70000UL, 1UL, 65535UL);
       })},
      {"offset -4 below 0|g.cpp|6",
       caught<cdl::exception>([] { throw cdl::exception("g.cpp", 6, "%s %ld below %lu", "offset", -4L, 0UL); })},
  };
  for (const auto& r : rows) EXPECT_EQ(r.got, r.expected);
}

TEST(Exception, FileNameIsTheTextAfterTheLastSeparator) {
  struct row {
    const char* path;
    const char* name;
  };
  const std::vector<row> rows = {
      {"/work/src/file_system/fs_cache.cpp", "fs_cache.cpp"},
      {"fs_cache.cpp", "fs_cache.cpp"},
      {"relative/dir/x.hpp", "x.hpp"},
      {"/trailing/", ""},
      {"", ""},
  };
  for (const auto& r : rows) EXPECT_EQ(cdl::file_name_of(r.path), r.name) << r.path;
  EXPECT_EQ(CDL_FILE_NAME, "exception_test.cpp");
  EXPECT_EQ(cdl::path_separator(), '/');
}

template <typename T>
void expect_family_member(const char* name) {
  try {
    throw T("h.cpp", 11, "%s: %s", name, "bad");
  } catch (const std::runtime_error& e) {
    const auto* as_cdl = dynamic_cast<const cdl::exception*>(&e);
    ASSERT_NE(as_cdl, nullptr) << name;
    EXPECT_NE(dynamic_cast<const T*>(&e), nullptr) << name;
    EXPECT_EQ(std::string(e.what()), std::string(name) + ": bad");
    EXPECT_EQ(as_cdl->file(), "h.cpp");
    EXPECT_EQ(as_cdl->line(), 11UL);
  }
  try {
    throw T("h.cpp", 12);
  } catch (const cdl::exception& e) {
    EXPECT_STREQ(e.what(), "") << name;
  }
}

TEST(Exception, EverySubclassIsACdlExceptionAndARuntimeError) {
  expect_family_member<cdl::exception>("exception");
  expect_family_member<cdl::assertion_failure>("assertion_failure");
  expect_family_member<cdl::missing_field_error>("missing_field_error");
  expect_family_member<cdl::unexpected_type_error>("unexpected_type_error");
  expect_family_member<cdl::not_in_range_error>("not_in_range_error");
  expect_family_member<cdl::unrecognized_value_error>("unrecognized_value_error");
  // Distinct dynamic types: one subclass is not caught as another.
  EXPECT_EQ(caught<cdl::missing_field_error>([] { throw cdl::unexpected_type_error("i.cpp", 1, "x"); }),
            "wrong type: x");
}

TEST(FormatStr, LongTextIsNotTruncated) {
  const std::string big(200000, 'z');
  const std::string formatted = cdl::format_str("<%s|%lu>", big, big.size());
  ASSERT_EQ(formatted.size(), big.size() + 9);
  EXPECT_EQ(formatted, "<" + big + "|200000>");
  EXPECT_EQ(cdl::format_str("%s", big + "%%"), big + "%%");
  EXPECT_EQ(caught<cdl::exception>([&] { throw cdl::exception("l.cpp", 1, "%s", big.c_str()); }), big + "|l.cpp|1");
}

TEST(FormatStr, ArgumentsReachTheFormatterAsPrintfExpects) {
  EXPECT_EQ(cdl::format_str(""), "");
  EXPECT_EQ(cdl::format_str("%lu %ld", 18446744073709551615UL, -9223372036854775807L - 1),
            "18446744073709551615 -9223372036854775808");
  EXPECT_EQ(cdl::format_str("%.2f %d %d", 1.5f, true, false), "1.50 1 0");
  EXPECT_EQ(cdl::format_str("[%s][%s]", std::string("std"), "plain"), "[std][plain]");
  EXPECT_EQ(cdl::format_str("no args 100%%"), "no args 100%");
}

}  // namespace
