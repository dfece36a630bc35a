// Catalogue records as a busy capture directory holds them: 48-character
// paths, 64-character hashes, one capture per second.
#pragma once

#include "bench_support.hpp"

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <cstdio>
#include <memory>
#include <string>

namespace faitra_bench {

constexpr uint64_t FIRST_START_NS = 1700000000000000000ULL;
constexpr uint64_t NS_PER_CAPTURE = 1000000000ULL;

// "/var/lib/faitra/captures/cap-0000000012345.pcap": 48 characters.
inline std::string capture_path(uint64_t i) {
  char text[64];
  std::snprintf(text, sizeof text, "/var/lib/faitra/captures/cap-%013lu.pcap", static_cast<unsigned long>(i));
  return text;
}

inline std::shared_ptr<csl::fs_entry> capture_record(uint64_t i) {
  auto e = std::make_shared<csl::fs_entry>(capture_path(i));
  e->key = hash_of(i);
  e->start_ts = FIRST_START_NS + i * NS_PER_CAPTURE;
  e->end_ts = *e->start_ts + NS_PER_CAPTURE - 1;
  e->creation_ts = *e->start_ts / 1000000000ULL;
  e->file_size = 1 << 20;
  return e;
}

}  // namespace faitra_bench
