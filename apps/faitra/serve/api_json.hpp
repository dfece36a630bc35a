// JSON answers of the daemon's HTTP API: the pieces every handler shares.
//
// Thread-safety: pure functions over the caller's writer and response.
#pragma once

#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>

#include <csl/fs_entry.hpp>

#include <httplib.h>

#include <cstdio>
#include <string>

namespace faitra_cli {

inline constexpr const char* JSON_TYPE = "application/json";

inline void send_json(httplib::Response& res, int status, cdl::json_writer& w) {
  res.status = status;
  res.set_content(w.take(), JSON_TYPE);
}

inline void write_record(cdl::json_writer& w, const csl::fs_entry& e) { e.to_json(w, {}, {}); }

// A fraction of one with six significant digits.
inline void write_fraction(cdl::json_writer& w, double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  w.raw_value(text);
}

inline void write_member(cdl::json_writer& w, const char* name, unsigned long value) {
  w.key(name, true);
  w.value<unsigned long>(value);
}

}  // namespace faitra_cli
