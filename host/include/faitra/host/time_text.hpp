// Times and durations as people type them, for the command line and the API.
//
// A time is one of:
//  - a decimal integer: nanoseconds since the epoch (what the API always
//    took, unchanged);
//  - RFC 3339: 2026-11-23T10:02:00Z, with an offset (+01:00, -05:30), a
//    fraction of up to 9 digits (.5, .123456789), 't'/'z' in lower case or
//    a space for the 'T'; second 60 (a leap second) counts as the first
//    second of the next minute, as POSIX time does; a bare date
//    (2026-11-23) is midnight UTC;
//  - "now", or a sign and a duration relative to `now_ns`: -5m, -1h30m, +7d.
//    A relative time needs a unit, so "-1" is refused rather than read as
//    a negative number.
// A duration is a plain number of seconds (3600) or numbers with units
// d, h, m, s, ms, us, ns, summed: 7d, 12h, 90m, 1h30m, 1m30s, 250ms.
// Every value must lie in [0, 2^64) ns: 1970-01-01 to 2554-07-21.
//
// Errors name the text and the problem, e.g. "abc is not a time: expected
// ns, RFC 3339 or a relative time like -5m".
//
// Thread-safety: pure functions.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace faitra_host {

constexpr uint64_t NS_PER_SECOND = 1000000000ULL;

std::optional<uint64_t> parse_time_ns(std::string_view text, uint64_t now_ns, std::string& error);

std::optional<uint64_t> parse_duration_ns(std::string_view text, std::string& error);

// RFC 3339 in UTC: 2026-11-23T10:02:00Z, with the fraction's significant
// digits when there is one (2026-11-23T10:02:00.25Z).
std::string format_time_ns(uint64_t ns);

// A duration the way parse_duration_ns reads it back: 7d, 1h30m, 0s.
std::string format_duration_ns(uint64_t ns);

// Nanoseconds since the epoch on the system clock.
uint64_t wall_clock_ns();

}  // namespace faitra_host
