// Read-only summaries of one catalogue for the operator: the retention
// window (how far back the captures on disk go) and a timeline of bytes per
// time bucket.
//
// Both read the first-packet index (start_ts, nanoseconds), which holds
// exactly the catalogued records that have a first-packet time; captures
// without one are left out. Captures marked for deletion are still counted:
// their files are on disk until the delete thread or the cleaner removes
// them.
//
// Thread-safety: each call takes the catalogue's shared lock for its
// duration and hands out plain values.
#pragma once

#include <csl/fs_cache.hpp>

#include <optional>
#include <vector>

namespace faitra_host {

struct retention_window {
  std::optional<unsigned long> oldest_start;  // nanoseconds; empty without dated captures
  std::optional<unsigned long> newest_start;
  unsigned long dated_captures = 0;  // captures that have a first-packet time

  // newest - oldest in seconds; 0 when empty.
  double span_seconds() const;
};

retention_window read_retention(const csl::fs_cache& cache);

// Bytes and captures per bucket of first-packet time. Bucket i covers
// [start + i * width, start + (i + 1) * width); the last one ends at `end`
// inclusive. A capture counts wholly in the bucket of its first packet, so an
// empty bucket is a time span in which no capture began: a gap.
struct timeline {
  unsigned long start = 0;  // nanoseconds
  unsigned long end = 0;
  unsigned long width = 0;  // nanoseconds per bucket
  std::vector<unsigned long> bytes;
  std::vector<unsigned long> captures;
};

constexpr unsigned long MAX_TIMELINE_BUCKETS = 1000;

// `buckets` in [1, MAX_TIMELINE_BUCKETS]; the range defaults to the
// retention window. No range (an empty catalogue) gives no buckets.
timeline read_timeline(const csl::fs_cache& cache, unsigned long buckets, std::optional<unsigned long> start,
                       std::optional<unsigned long> end);

}  // namespace faitra_host
