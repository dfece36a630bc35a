// Times and durations as typed: every accepted form, and the refusals that
// a careless change to the parser would let through (impossible dates,
// offsets applied the wrong way, overflow at either end, bare negatives),
// and the API and the client taking them where they took integers.
#include "daemon_harness.hpp"

#include <faitra/host/time_text.hpp>

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace {

using faitra_host::parse_duration_ns;
using faitra_host::parse_time_ns;

constexpr uint64_t NOW = 1795428120000000000ULL;  // 2026-11-23T10:02:00Z
constexpr uint64_t S = 1000000000ULL;

struct time_case {
  const char* text;
  std::optional<uint64_t> ns;  // nothing: refused
  const char* error = "";      // a fragment of the refusal
};

template <size_t N, typename Parse>
void expect_table(const time_case (&cases)[N], Parse parse) {
  for (const time_case& c : cases) {
    std::string error;
    EXPECT_EQ(parse(c.text, error), c.ns) << c.text << ": " << error;
    if (!c.ns) {
      EXPECT_NE(error.find(c.error), std::string::npos) << c.text << ": " << error;
    }
  }
}

TEST(TimeTextTest, ParsesTimes) {
  const time_case cases[] = {
      {"1700000000000000000", 1700000000000000000ULL},
      {"18446744073709551615", 18446744073709551615ULL},
      {"18446744073709551616", std::nullopt, "fit 64 bits"},
      {"2026-11-23T10:02:00Z", NOW},
      {"2026-11-23t10:02:00z", NOW},
      {"2026-11-23 10:02:00Z", NOW},
      {"2026-11-23T11:02:00+01:00", NOW},
      {"2026-11-23T04:32:00-05:30", NOW},
      {"2026-11-23T10:02:00-00:00", NOW},
      {"2026-11-23T10:02:00.5Z", NOW + S / 2},
      {"2026-11-23T10:02:00.000000001Z", NOW + 1},
      {"2026-11-23", NOW - (10 * 3600 + 2 * 60) * S},
      {"1970-01-01T00:00:00Z", 0},
      {"1970-01-01T00:59:59+01:00", std::nullopt, "before 1970"},
      {"2024-02-29T00:00:00Z", 1709164800 * S},
      {"2026-02-29T00:00:00Z", std::nullopt, "no such date"},
      {"2100-02-29T00:00:00Z", std::nullopt, "no such date"},
      {"2016-12-31T23:59:60Z", 1483228800 * S},
      {"2554-07-21T23:34:33.709551615Z", 18446744073709551615ULL},
      {"2554-07-21T23:34:33.709551616Z", std::nullopt, "fits 64 bits"},
      {"9999-12-31T23:59:59Z", std::nullopt, "fits 64 bits"},
      {"2026-11-23T24:00:00Z", std::nullopt, "no such time"},
      {"2026-11-23T10:02:00+24:00", std::nullopt, "no such offset"},
      {"2026-11-23T10:02:00.1234567891Z", std::nullopt, "9 fractional digits"},
      {"2026-11-23T10:02:00.Z", std::nullopt, "digits after the point"},
      {"2026-11-23T10:02:00", std::nullopt, "expected Z"},
      {"2026-11-23T10:02Z", std::nullopt, "hours, minutes and seconds"},
      {"now", NOW},
      {"-5m", NOW - 300 * S},
      {"-1h30m", NOW - 5400 * S},
      {"+7d", NOW + 7 * 86400 * S},
      {"-100000d", std::nullopt, "before 1970"},
      {"-1", std::nullopt, "needs a unit"},
      {"-1x", std::nullopt, "expected ns, RFC 3339"},
      {"abc", std::nullopt, "abc is not a time: expected ns, RFC 3339 or a relative time like -5m"},
      {"", std::nullopt, "expected ns"},
      {" 1", std::nullopt, "expected ns"},
  };
  expect_table(cases, [](const char* text, std::string& error) { return parse_time_ns(text, NOW, error); });
}

TEST(TimeTextTest, ParsesDurations) {
  const time_case cases[] = {
      {"7d", 7 * 86400 * S},   {"12h", 12 * 3600 * S},   {"90m", 90 * 60 * S},
      {"30s", 30 * S},         {"1h30m", 5400 * S},       {"1m30s", 90 * S},
      {"250ms", S / 4},        {"3us", 3000},             {"7ns", 7},
      {"3600", 3600 * S},      {"0", 0},                  {"18446744073s", 18446744073 * S},
      {"18446744074s", std::nullopt, "longer than 64 bits"},
      {"213504d", std::nullopt, "longer than 64 bits"},
      {"99999999999999999999999", std::nullopt, "longer than 64 bits"},
      {"7D", std::nullopt, "units d, h, m"},
      {"1.5h", std::nullopt, "units d, h, m"},
      {"h", std::nullopt, "units d, h, m"},
      {"-5m", std::nullopt, "units d, h, m"},
      {"", std::nullopt, "units d, h, m"},
  };
  expect_table(cases, [](const char* text, std::string& error) { return parse_duration_ns(text, error); });
}

TEST(TimeTextTest, FormatsWhatItParses) {
  EXPECT_EQ(faitra_host::format_time_ns(NOW), "2026-11-23T10:02:00Z");
  EXPECT_EQ(faitra_host::format_time_ns(NOW + 250000000), "2026-11-23T10:02:00.25Z");
  EXPECT_EQ(faitra_host::format_time_ns(18446744073709551615ULL), "2554-07-21T23:34:33.709551615Z");
  EXPECT_EQ(faitra_host::format_duration_ns(5400 * S + 1), "1h30m1ns");
  for (const uint64_t ns : {uint64_t{0}, uint64_t{1709164800} * S - 1, NOW + 7}) {
    std::string error;
    EXPECT_EQ(parse_time_ns(faitra_host::format_time_ns(ns), 0, error), ns) << error;
    EXPECT_EQ(parse_duration_ns(faitra_host::format_duration_ns(ns), error), ns) << error;
  }
}

TEST(TimeTextTest, TheApiAndTheClientTakeTimeTexts) {
  faitra_test::temp_dir dir("faitra-e2e-times");
  const std::string a = dir.file("a.pcap"), b = dir.file("b.pcap");
  faitra_test::write_capture(a, 4096, faitra_e2e::attributes(1700000000));  // 2023-11-14T22:13:20Z
  faitra_test::write_capture(b, 4096, faitra_e2e::attributes(1700000060));
  faitra_e2e::daemon_process d({"--root", dir.path(), "--no-auto-cleanup", "--reconcile-interval", "0"});
  ASSERT_TRUE(d.wait_ready());
  for (const char* end : {"2023-11-14T23:13:20%2B01:00", "2023-11-14T23:13:20+01:00", "1700000000000000000"}) {
    const auto r = d.request("GET", std::string("/v1/captures?start=2023-11-14T22:13:20Z&end=") + end);
    ASSERT_EQ(r.status, 200) << end << ": " << r.body;
    ASSERT_EQ(r.json["captures"].Size(), 1U) << end << ": " << r.body;
    EXPECT_STREQ(r.json["captures"][0]["path"].GetString(), a.c_str());
  }
  const auto bad = d.request("GET", "/v1/captures?start=2023-02-29T00:00:00Z&end=now");
  EXPECT_EQ(bad.status, 400);
  EXPECT_NE(bad.body.find("no such date"), std::string::npos) << bad.body;
  EXPECT_EQ(d.request("GET", "/v1/captures?start=-1&end=5").status, 400);

  const auto [code, out, err] = faitra_e2e::run(
      {"ls", "--listen", d.listen(), "--start", "2023-11-14T22:14:00Z", "--end", "+1d"});
  EXPECT_EQ(code, 0);
  EXPECT_EQ(out.find(a), std::string::npos) << out;
  EXPECT_NE(out.find(b + "  4096  2023-11-14T22:14:20Z  2023-11-14T22:14:20.5Z"), std::string::npos) << out;
  const auto refused = faitra_e2e::run({"ls", "--listen", d.listen(), "--start", "abc", "--end", "now"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("--start: abc is not a time"), std::string::npos) << refused.err;

  EXPECT_EQ(d.request("POST", "/v1/cleanup/age", R"({"mode": "files", "cutoff": "2023-11-14T22:13:59.9Z"})").status,
            202);
  EXPECT_TRUE(faitra_test::wait_until([&] { return !faitra_e2e::exists(a); }));
  EXPECT_TRUE(faitra_e2e::exists(b));
  EXPECT_EQ(d.stop(), 0);
}

}  // namespace
