// The exception family, throw_assert and the formatter behind both.
#include <cdl/exception.hpp>
#include <cdl/format.hpp>

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace {

// Runs `raise`, which must throw T; returns "what|file|line".
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

TEST(Exception, ThrowAssertFormatsTwiceTheConstructorOnce) {
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("a.cpp", 4); }), "|a.cpp|4");
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("a.cpp", 5, "", "ignored"); }), "|a.cpp|5");
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("f.cpp", 7, "%s", "100%%"); }), "100%|f.cpp|7");
  EXPECT_EQ(caught<cdl::assertion_failure>([] { cdl::throw_assert("f.cpp", 9, "50%%%%"); }), "50%|f.cpp|9");
  EXPECT_EQ(caught<cdl::exception>([] { throw cdl::exception("g.cpp", 1, "50%%"); }), "50%|g.cpp|1");
  EXPECT_EQ(caught<cdl::exception>([] { throw cdl::exception("g.cpp", 2, "%s", "100%%"); }), "100%%|g.cpp|2");
  EXPECT_EQ(caught<cdl::exception>([] { throw cdl::exception("g.cpp", 3); }), "|g.cpp|3");
  EXPECT_EQ(caught<cdl::not_in_range_error>([] {
              throw cdl::not_in_range_error("g.cpp", 5, "%s %lu %ld", "port", 70000UL, -4L);
            }),
            "port 70000 -4|g.cpp|5");
}

TEST(Exception, FileNameIsTheTextAfterTheLastSeparator) {
  for (const auto& [path, name] : {std::pair{"/work/src/fs_cache.cpp", "fs_cache.cpp"}, {"x.hpp", "x.hpp"},
                                   {"/trailing/", ""}, {"", ""}}) {
    EXPECT_EQ(cdl::file_name_of(path), name) << path;
  }
  EXPECT_EQ(CDL_FILE_NAME, "exception_test.cpp");
}

template <typename T>
void expect_family_member() {
  try {
    throw T("h.cpp", 11, "%s", "bad");
  } catch (const std::runtime_error& e) {
    EXPECT_NE(dynamic_cast<const T*>(&e), nullptr);
    const auto* as_cdl = dynamic_cast<const cdl::exception*>(&e);
    ASSERT_NE(as_cdl, nullptr);
    EXPECT_STREQ(e.what(), "bad");
    EXPECT_EQ(as_cdl->line(), 11UL);
  }
}

TEST(Exception, EverySubclassIsACdlExceptionAndARuntimeError) {
  expect_family_member<cdl::assertion_failure>();
  expect_family_member<cdl::missing_field_error>();
  expect_family_member<cdl::unexpected_type_error>();
  expect_family_member<cdl::not_in_range_error>();
  expect_family_member<cdl::unrecognized_value_error>();
  EXPECT_EQ(caught<cdl::missing_field_error>([] { throw cdl::unexpected_type_error("i.cpp", 1, "x"); }),
            "wrong type: x");
}

TEST(FormatStr, LongTextIsNotTruncatedAndArgumentsArePassedAsPrintfExpects) {
  const std::string big(200000, 'z');
  EXPECT_EQ(cdl::format_str("<%s|%lu>", big, big.size()), "<" + big + "|200000>");
  EXPECT_EQ(caught<cdl::exception>([&] { throw cdl::exception("l.cpp", 1, "%s", big.c_str()); }), big + "|l.cpp|1");
  EXPECT_EQ(cdl::format_str("%lu %ld %.2f %d", ~0UL, -9223372036854775807L - 1, 1.5f, true),
            "18446744073709551615 -9223372036854775808 1.50 1");
}

}  // namespace
