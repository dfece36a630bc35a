// Reads a capture record from any JSON document, and writes one named by
// the input's bytes.
//
// Allowed outcomes: the record is read; cdl::unexpected_type_error for a
// member of the wrong type; cdl::assertion_failure for an array document.
// Properties: no validation error is ever added; a marker already on the
// record is never cleared; a record read in full writes valid UTF-8 JSON
// that reads back into the same record once its escaped bytes are restored
// (faitra_host::restore_escaped_bytes); a record whose path is any bytes
// writes valid UTF-8 JSON whose path restores to exactly those bytes.
#include "fuzz_check.hpp"

#include <csl/fs_entry.hpp>

#include <faitra/host/escaped_bytes.hpp>

#include <cdl/exception.hpp>

#include <rapidjson/document.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace {

enum class outcome { read, wrong_type, array };

// `json` parsed as strictly UTF-8 JSON.
void parse_strictly(rapidjson::Document& doc, const std::string& json) {
  doc.Parse<rapidjson::kParseValidateEncodingFlag>(json.data(), json.size());
  FUZZ_CHECK(!doc.HasParseError());
}


outcome read(csl::fs_entry& record, const rapidjson::Document& doc) {
  cdl::validation_error_list errors;
  try {
    record.from_json(doc, errors, {}, {}, {});
  } catch (const cdl::unexpected_type_error& e) {
    FUZZ_CHECK(std::strstr(e.what(), "The ") == e.what());
    return outcome::wrong_type;
  } catch (const cdl::assertion_failure& e) {
    FUZZ_CHECK(doc.IsArray());
    FUZZ_CHECK(std::string(e.what()) == "The input must not be an array.");
    return outcome::array;
  }
  FUZZ_CHECK(errors.empty());
  return outcome::read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  rapidjson::Document named;
  parse_strictly(named, csl::fs_entry(bytes).to_json_str());
  const auto& path = named["path"];
  FUZZ_CHECK(faitra_host::restore_escaped_bytes(std::string(path.GetString(), path.GetStringLength())) == bytes);

  rapidjson::Document doc;
  doc.Parse(reinterpret_cast<const char*>(data), size);
  if (doc.HasParseError()) return 0;

  csl::fs_entry fresh("/captures/a.pcap");
  const outcome first = read(fresh, doc);
  if (doc.IsArray()) FUZZ_CHECK(first == outcome::array);

  csl::fs_entry marked("/captures/b.pcap");
  marked.deletion = csl::fs_entry::deletion_by::cleanup;
  FUZZ_CHECK(read(marked, doc) == first);
  FUZZ_CHECK(marked.is_deletion_pending());

  if (first == outcome::read) {
    rapidjson::Document again;
    parse_strictly(again, fresh.to_json_str());
    csl::fs_entry copy;
    FUZZ_CHECK(read(copy, again) == outcome::read);
    FUZZ_CHECK(faitra_host::restore_escaped_bytes(copy.path) == fresh.path);
    FUZZ_CHECK(copy.key.is_null() == fresh.key.is_null());
    FUZZ_CHECK(fresh.key.is_null() || faitra_host::restore_escaped_bytes(*copy.key) == *fresh.key);
    FUZZ_CHECK(copy.creation_ts == fresh.creation_ts && copy.start_ts == fresh.start_ts &&
               copy.end_ts == fresh.end_ts && copy.file_size == fresh.file_size &&
               copy.is_deletion_pending() == fresh.is_deletion_pending());
  }
  return 0;
}
