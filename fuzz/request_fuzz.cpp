// Runs the daemon's request parsing on any query string and body.
//
// Input: one byte choosing the endpoint, then the query string up to the
// first newline, then the body (for the Authorization check: the header
// values, one per line, the last line being the token). Allowed outcome: a
// parsed request, or faitra_cli::api_error with status 400, 401 (the
// Authorization check only: 400 there for several headers or a NUL byte) or
// 413 and a message. Properties of a parsed request: ranges are never
// inverted, a limit is at least 1, a path or key is never empty, a path or
// mode holds no NUL byte, a timeline has 1 to 1000 buckets, a mode is one of
// the three names, a nanosecond cut-off cannot overflow, a packets request
// has a window, limits of at least 1 and a filter within its bound, an
// accepted Authorization header names the token, and a hold names a window
// or paths, with a reason, and no text holds a NUL byte.
#include "fuzz_check.hpp"

#include "api_request.hpp"

#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  const size_t newline = rest.find('\n');
  const std::string target = "/v1/x?" + rest.substr(0, newline);
  const std::string body = newline == std::string::npos ? std::string() : rest.substr(newline + 1);
  using namespace faitra_cli;
  try {
    check_body_size(body);
    switch (data[0] % 13) {
      case 0: {
        const list_request r = parse_list_request(target);
        if (r.range) FUZZ_CHECK(r.range->start <= r.range->end);
        FUZZ_CHECK(r.limit >= 1);
        break;
      }
      case 1: {
        const lookup_request r = parse_lookup_request(target);
        FUZZ_CHECK(!r.value.empty() && r.value.find('\0') == std::string::npos);
        break;
      }
      case 2: {
        const delete_request r = parse_delete_request(target);
        if (r.what == delete_request::form::path) FUZZ_CHECK(!r.path.empty() && r.path.find('\0') == std::string::npos);
        if (r.what == delete_request::form::range) FUZZ_CHECK(r.range.start <= r.range.end);
        break;
      }
      case 3: {
        const age_cleanup_request r = parse_age_cleanup_request(target, body);
        FUZZ_CHECK(r.mode_text == "files" || r.mode_text == "metadata" || r.mode_text == "both");
        if (r.mode != csl::age_cleanup_state::files) {
          FUZZ_CHECK(r.cutoff <= std::numeric_limits<unsigned long>::max() / 1000000000UL);
        }
        break;
      }
      case 4: {
        const time_range r = parse_metadata_cleanup_request(target, body);
        FUZZ_CHECK(r.start <= r.end);
        break;
      }
      case 5:
        parse_automatic_request(target, body);
        break;
      case 6:
        parse_reconcile_request(target, body);
        break;
      case 8: {
        const packets_request r = parse_packets_request(target);
        FUZZ_CHECK(r.window.start <= r.window.end);
        FUZZ_CHECK(r.limit_packets >= 1 && r.limit_bytes >= 1);
        FUZZ_CHECK(r.filter.size() <= MAX_FILTER_BYTES && r.filter.find('\0') == std::string::npos);
        break;
      }
      case 9: {
        const timeline_request r = parse_timeline_request(target);
        if (r.range) FUZZ_CHECK(r.range->start <= r.range->end);
        FUZZ_CHECK(r.buckets >= 1 && r.buckets <= faitra_host::MAX_TIMELINE_BUCKETS);
        break;
      }
      case 10: {
        std::vector<std::string> lines;
        std::istringstream text(body);
        for (std::string line; std::getline(text, line);) lines.push_back(line);
        if (lines.empty()) break;
        const std::string token = lines.back();
        lines.pop_back();
        try {
          check_authorization(lines, token);
          FUZZ_CHECK(lines.size() == 1 && lines[0].find(token) != std::string::npos);
        } catch (const api_error& e) {
          const bool malformed = lines.size() > 1 || (lines.size() == 1 && lines[0].find('\0') != std::string::npos);
          FUZZ_CHECK(e.status() == (malformed ? 400 : 401));
        }
        break;
      }
      case 11: {
        const faitra_host::hold_request r = parse_hold_request(target, body);
        FUZZ_CHECK(!r.reason.empty() && r.reason.find('\0') == std::string::npos);
        FUZZ_CHECK(r.window ? r.paths.empty() && r.window->start <= r.window->end : !r.paths.empty());
        for (const std::string& path : r.paths) FUZZ_CHECK(!path.empty() && path.find('\0') == std::string::npos);
        break;
      }
      case 12:
        parse_hold_release_request(target);
        break;
      default:
        parse_plain_request(target);
        break;
    }
  } catch (const api_error& e) {
    FUZZ_CHECK(e.status() == 400 || e.status() == 413);
    FUZZ_CHECK(e.what()[0] != '\0');
  }
  return 0;
}
