// Reads a capture record from any JSON document.
//
// Allowed outcomes: the record is read; cdl::unexpected_type_error for a
// member of the wrong type; cdl::assertion_failure for an array document.
// Properties: no validation error is ever added; a marker already on the
// record is never cleared; a record read in full writes JSON that reads back
// into the same record.
#include "fuzz_check.hpp"

#include <csl/fs_entry.hpp>

#include <cdl/exception.hpp>

#include <rapidjson/document.h>

#include <cstdint>
#include <cstring>
#include <string>

namespace {

enum class outcome { read, wrong_type, array };

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
    const std::string written = fresh.to_json_str();
    rapidjson::Document again;
    again.Parse(written.data(), written.size());
    FUZZ_CHECK(!again.HasParseError());
    csl::fs_entry copy;
    FUZZ_CHECK(read(copy, again) == outcome::read);
    FUZZ_CHECK(copy.to_json_str() == written);
  }
  return 0;
}
