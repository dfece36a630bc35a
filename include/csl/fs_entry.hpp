// csl::fs_entry: the record of one capture file.
//
// A record holds the file's path (its identity), the metadata the capture
// writer stored in the file's extended attributes (hash key, creation, first
// and last packet timestamps), its size, and the deletion marker that says
// whether, and by whom, the file was marked for deletion.
//
// Contract:
//  - `creation_ts` and `file_size` are plain (0 when unknown); `key`,
//    `start_ts` and `end_ts` are nullable.
//  - operator== compares paths only.
//  - operator< compares start timestamps when both are set, and paths
//    otherwise; equal start timestamps are not broken by path. This mixed
//    rule is not a strict weak ordering when records with and without start
//    timestamps are mixed; it sorts result sets that all carry timestamps.
//  - A record is marked by one compare-exchange of `deletion` from `none`;
//    the winner alone queues and deletes the file.
//  - to_str() always ends with ", " after the last field.
//
// Thread-safety: inside the index a record is shared; only `deletion` may
// change while other threads read it, which is why it alone is atomic. The
// plain fields are written under the index's exclusive lock. Copies take a
// consistent snapshot of the marker only, so copy under the index lock.
#pragma once

#include <cdl/json_object.hpp>
#include <cdl/nullable.hpp>

#include <atomic>
#include <cstdint>
#include <string>

namespace csl {

class fs_entry : public cdl::json_object {
 public:
  enum class deletion_by : int32_t {
    none = 0,       // not marked
    requested = 1,  // marked on request (or read back from JSON)
    cleanup = 2,    // marked by the automatic or the age cleanup
  };

  fs_entry() = default;
  explicit fs_entry(std::string path) : path(std::move(path)) {}
  fs_entry(const fs_entry& other);
  fs_entry& operator=(const fs_entry& other);
  ~fs_entry() override;

  void from_json(const rapidjson::Document& doc, cdl::validation_error_list& errors, cdl::api_version_t<int> version,
                 cdl::print_type_t<int> print, cdl::field_specs rules) override;
  void to_json(cdl::json_writer& writer, cdl::api_version_t<int> version,
               cdl::print_type_t<int> print) const override;

  bool is_deletion_pending() const { return deletion.load() != deletion_by::none; }
  bool has_extended_attributes() const { return !key.is_null(); }

  bool operator==(const fs_entry& other) const { return path == other.path; }
  bool operator<(const fs_entry& other) const {
    if (!start_ts.is_null() && !other.start_ts.is_null()) return *start_ts < *other.start_ts;
    return path < other.path;
  }

  // One-line text for log messages.
  std::string to_str();

  std::string path;
  cdl::nullable<std::string> key;
  unsigned long creation_ts = 0;
  cdl::nullable<unsigned long> start_ts;
  cdl::nullable<unsigned long> end_ts;
  unsigned long file_size = 0;
  std::atomic<deletion_by> deletion{deletion_by::none};
};

}  // namespace csl
