// The JSON form of evidence holds, shared by the API's answers and the
// registry's state file (DIR/holds.json).
//
// A hold: {"id": 3, "reason": "...", "created": NS, "expires": NS|null,
//   "window": {"start": NS, "end": NS}|null, "bytes": N,
//   "captures": [{"path", "held_path", "key", "start_ts", "end_ts",
//                 "creation_ts", "file_size"}]}
// (times in ns since the epoch, creation_ts in s, bytes the sum of the
// held files' sizes; names that are not UTF-8 escaped as the API does).
// The state file: {"version": 1, "next_id": N,
// "holds": [hold, ...]}.
//
// Thread-safety: pure functions.
#pragma once

#include <faitra/host/holds.hpp>

#include <cdl/json_writer.hpp>

#include <string>
#include <vector>

namespace faitra_host {

void write_hold(cdl::json_writer& w, const hold& h);

std::string holds_to_json(const std::vector<hold>& holds, unsigned long next_id);

// Reads a state file; false with `error` set when it is not one.
bool holds_from_json(const std::string& text, std::vector<hold>& holds, unsigned long& next_id, std::string& error);

}  // namespace faitra_host
