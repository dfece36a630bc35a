// faitra_host::append_record_json: a capture record's JSON form appended to a
// text buffer, for output of many records (faitra scan) without a writer
// object or temporary strings.
//
// Contract: appends exactly the text that csl::fs_entry::to_json writes
// through the runtime's json_writer: the members in the record's order, null
// for unset nullable fields, strings escaped by cdl::safe_quote (text that it
// would leave as it is, printable ASCII, is copied without calling it),
// numbers in plain decimal.
//
// Thread-safety: a function of its arguments only.
#pragma once

#include <csl/fs_entry.hpp>

#include <string>

namespace faitra_host {

void append_record_json(std::string& out, const csl::fs_entry& record);

}  // namespace faitra_host
