// The input side of the daemon's HTTP API: each request's query string and
// body turned into what its handler acts on, or an api_error.
//
// These functions only look at the request target (path and raw query
// string, as sent) and the body; they touch no daemon state, so a request
// they refuse changes nothing. The checks of one request run in a fixed
// order and the first failure is the one reported. Query parameters are
// taken from the target only: a form-encoded body never supplies them.
//
// Times: where a request takes a time, a decimal integer keeps its unit (ns,
// or seconds where documented), and text is read by parse_time_ns (RFC 3339
// or relative to `now_ns`, the daemon's clock). In a query string '+' means
// a space, so an offset or a relative time sent with an unencoded '+'
// (2026-11-23T11:02:00 01:00, " 5m") is read as meant.
//
// Raises only api_error (status 400, 401 for a wrong token, or 413 for an
// oversized body). A text with a NUL byte (in a parameter, a body member's
// name or a string value) is refused wherever one is read.
//
// Thread-safety: pure functions.
#pragma once

#include <faitra/host/catalogue_views.hpp>
#include <faitra/host/holds.hpp>
#include <faitra/host/time_text.hpp>

#include <csl/fs_cleaner.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace faitra_cli {

// An error with the HTTP status it maps to.
class api_error : public std::runtime_error {
 public:
  api_error(int status, const std::string& message) : std::runtime_error(message), _status(status) {}
  int status() const { return _status; }

 private:
  int _status;
};

// Bodies above this many bytes are refused with 413.
constexpr size_t MAX_BODY_BYTES = 64 * 1024;

// Parses a query parameter's value as an unsigned 64-bit decimal integer;
// raises api_error 400 naming the parameter otherwise.
unsigned long parse_unsigned(const std::string& name, const std::string& text);

// A query parameter holding a time: an integer (in its own unit), or a time
// text converted to ns, or to seconds when `seconds`.
unsigned long parse_time_param(const std::string& name, const std::string& text, uint64_t now_ns, bool seconds);

// Refuses a body above MAX_BODY_BYTES.
void check_body_size(const std::string& body);

struct time_range {
  unsigned long start;
  unsigned long end;
};

// GET /v1/captures?start&end&match&limit
struct list_request {
  std::optional<time_range> range;
  // With a range: captures whose [start_ts, end_ts] overlaps it (the
  // default), or whose start_ts lies in it (match=start).
  bool by_start = false;
  unsigned long limit;  // the largest unsigned long when not given
};
list_request parse_list_request(const std::string& target, uint64_t now_ns = faitra_host::wall_clock_ns());

// GET /v1/packets?start&end[&filter][&limit_packets][&limit_bytes]
struct packets_request {
  time_range window;  // required; start <= end
  std::string filter;  // BPF; empty: every packet
  unsigned long limit_packets;  // at least 1; the largest unsigned long when not given
  unsigned long limit_bytes;    // likewise
};
// The longest filter expression accepted, in bytes.
constexpr size_t MAX_FILTER_BYTES = 4096;
packets_request parse_packets_request(const std::string& target, uint64_t now_ns = faitra_host::wall_clock_ns());

// GET /v1/captures/lookup?path= | ?key=
struct lookup_request {
  bool by_key = false;
  std::string value;  // the path or the key, as sent
};
lookup_request parse_lookup_request(const std::string& target);

// The forms under which a path or key sent by a client may be catalogued:
// the bytes as sent, then, when they hold escaped bytes (see
// <faitra/host/escaped_bytes.hpp>), those bytes restored.
std::vector<std::string> catalogued_forms(const std::string& sent);

// Checks the Authorization headers of a request against `token`: exactly
// one header (400 otherwise), of the scheme Bearer in any letter case
// followed by the token (401 otherwise). The token is compared in time
// that does not depend on where the texts differ.
void check_authorization(const std::vector<std::string>& headers, const std::string& token);

// DELETE /v1/captures?path= | ?start&end&by= | ?all=true
struct delete_request {
  enum class form { path, all, range };
  form what = form::path;
  std::string path;
  time_range range{0, 0};
  bool by_start = true;
};
delete_request parse_delete_request(const std::string& target, uint64_t now_ns = faitra_host::wall_clock_ns());

// POST /v1/cleanup/age {"mode", "cutoff"[, "dry_run"]}: cutoff in seconds,
// or a time text
struct age_cleanup_request {
  csl::age_cleanup_state::cleanup_mode mode;
  std::string mode_text;
  unsigned long cutoff;  // seconds
  bool dry_run = false;
};
age_cleanup_request parse_age_cleanup_request(const std::string& target, const std::string& body,
                                              uint64_t now_ns = faitra_host::wall_clock_ns());

// POST /v1/cleanup/metadata {"start", "end"}: ns, or time texts
time_range parse_metadata_cleanup_request(const std::string& target, const std::string& body,
                                          uint64_t now_ns = faitra_host::wall_clock_ns());

// PUT /v1/cleanup/metadata/automatic {"enabled"}; the new setting.
bool parse_automatic_request(const std::string& target, const std::string& body);

// POST /v1/reconcile: no parameters, and an empty body or an empty object.
void parse_reconcile_request(const std::string& target, const std::string& body);

// GET /v1/timeline?buckets&start&end: start and end in ns, or time texts
struct timeline_request {
  unsigned long buckets = 60;
  std::optional<time_range> range;
};
timeline_request parse_timeline_request(const std::string& target, uint64_t now_ns = faitra_host::wall_clock_ns());

// POST /v1/holds {"start", "end"} or {"paths"}, "reason", optional "expires"
// (times: ns or time texts; expires may be null). The reason and each path
// are non-empty strings without NUL bytes.
constexpr size_t MAX_HOLD_PATHS = 10000;
constexpr size_t MAX_REASON_BYTES = 1024;
faitra_host::hold_request parse_hold_request(const std::string& target, const std::string& body,
                                             uint64_t now_ns = faitra_host::wall_clock_ns());

// DELETE /v1/holds?id=
unsigned long parse_hold_release_request(const std::string& target);

// Requests that take no parameters (status, storage, metrics, the holds' list).
void parse_plain_request(const std::string& target);

// The query parameter that names one capture root (its directory). Every
// request accepts it (the parsers above let it through); the API uses it
// to choose the root or roots that answer.
inline constexpr const char* ROOT_PARAM = "root";

// The root named by the request, if any. Raises api_error 400 when it is
// empty, given twice or holds a NUL byte; other parameters are not checked.
std::optional<std::string> parse_root_param(const std::string& target);

}  // namespace faitra_cli
