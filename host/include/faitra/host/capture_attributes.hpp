// The four capture attributes on a file, read leniently and written only
// where absent.
//
// read_capture_attributes reads user.pcap_hash, user.pcap_start_ts,
// user.pcap_end_ts and user.pcap_creation_ts the way the library's reader
// does (one 256-byte buffer: 1 to 255 bytes is a value, the text up to a
// zero byte, base-10 numbers parsed with cdl::from_str), in one pass, but
// a value that does not parse is reported in `malformed` and treated as
// absent instead of raising. It never throws.
//
// write_capture_attributes sets the attributes that are absent on the file
// (XATTR_CREATE each), so a value a writer set is never replaced, not even
// one set between our read and our write. Setting attributes changes the
// file's ctime only: its bytes and mtime stay as they were.
//
// derived_attributes maps a summary to the four values: the hash, the
// earliest and latest packet times in ns, and creation as the earliest
// packet time in whole seconds (so that cleanup stays oldest-first by
// packet time).
//
// Thread-safety: free functions over their own buffers.
#pragma once

#include <faitra/host/capture_summary.hpp>

#include <csl/fs_entry.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace faitra_host {

extern const char* const HASH_ATTRIBUTE;
extern const char* const START_ATTRIBUTE;
extern const char* const END_ATTRIBUTE;
extern const char* const CREATION_ATTRIBUTE;

struct attribute_values {
  std::optional<std::string> key;
  std::optional<uint64_t> start_ns;
  std::optional<uint64_t> end_ns;
  std::optional<int64_t> creation_s;
  std::vector<std::string> malformed;  // attributes whose value did not parse: name "value" (40 bytes at most)

  bool complete() const { return key && start_ns && end_ns && creation_s; }
  // Fills what this lacks from `other`.
  void fill_from(const attribute_values& other);
  // Sets the record's fields that these values have (creation only when
  // present, as the library's reader does).
  void apply_to(csl::fs_entry& record) const;
};

attribute_values read_capture_attributes(const std::string& path);

attribute_values derived_attributes(const capture_summary& summary);

enum class write_outcome {
  written,      // every absent attribute was set (possibly none)
  unsupported,  // the file system refuses user.* attributes
  vanished,     // the file is gone
  failed,       // another error; see `error`
};

write_outcome write_capture_attributes(const std::string& path, const attribute_values& values,
                                       std::string& error);

}  // namespace faitra_host
