#include <faitra/host/record_json.hpp>

#include <cdl/text.hpp>

#include <algorithm>
#include <charconv>
#include <string_view>

namespace faitra_host {

namespace {

// Capture paths and hashes are nearly always printable ASCII without a quote
// or a backslash, which cdl::safe_quote leaves as it is: such text is copied
// straight; anything else is escaped by safe_quote itself.
void append_string(std::string& out, std::string_view text) {
  out += '"';
  const bool plain = std::all_of(text.begin(), text.end(), [](char ch) {
    const auto c = static_cast<unsigned char>(ch);
    return c >= 0x20 && c < 0x80 && c != '"' && c != '\\';
  });
  if (plain) {
    out.append(text);
  } else {
    out.append(cdl::safe_quote(std::string(text)));
  }
  out += '"';
}

void append_number(std::string& out, unsigned long value) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out.append(digits, static_cast<size_t>(end - digits));
}

void append_number(std::string& out, const cdl::nullable<unsigned long>& value) {
  if (value.is_null()) {
    out.append("null");
  } else {
    append_number(out, *value);
  }
}

}  // namespace

void append_record_json(std::string& out, const csl::fs_entry& record) {
  out.append("{\"path\":");
  append_string(out, record.path);
  out.append(",\"key\":");
  if (record.key.is_null()) {
    out.append("null");
  } else {
    append_string(out, *record.key);
  }
  out.append(",\"creation_ts\":");
  append_number(out, record.creation_ts);
  out.append(",\"start_ts\":");
  append_number(out, record.start_ts);
  out.append(",\"end_ts\":");
  append_number(out, record.end_ts);
  out.append(",\"file_size\":");
  append_number(out, record.file_size);
  out.append(record.is_deletion_pending() ? ",\"pending_deletion\":true}" : ",\"pending_deletion\":false}");
}

}  // namespace faitra_host
