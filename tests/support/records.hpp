// Building capture records in one expression.
#pragma once

#include <csl/fs_entry.hpp>

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace faitra_test {

inline csl::fs_entry record(std::string path, std::optional<std::string> key, unsigned long creation,
                            std::optional<unsigned long> start, std::optional<unsigned long> end,
                            unsigned long size = 0) {
  csl::fs_entry e(std::move(path));
  if (key) e.key = *key;
  e.creation_ts = creation;
  if (start) e.start_ts = *start;
  if (end) e.end_ts = *end;
  e.file_size = size;
  return e;
}

inline std::shared_ptr<csl::fs_entry> shared_record(std::string path, std::optional<std::string> key,
                                                    unsigned long creation, std::optional<unsigned long> start,
                                                    std::optional<unsigned long> end, unsigned long size = 0) {
  return std::make_shared<csl::fs_entry>(record(std::move(path), std::move(key), creation, start, end, size));
}

}  // namespace faitra_test
