// Which catalogued captures can hold packets of a time window.
//
// A capture covers the closed window [start, end] when its own span
// [start_ts, end_ts] (first and last packet) overlaps it: start_ts <= end
// and end_ts >= start. That includes a capture that began before the window
// and runs into it, which a test of start_ts alone would miss. A capture
// without both times is never guessed at: it is counted in `without_times`
// and left out.
//
// The walk uses the catalogue's public indexes only. It advances through
// the start index (from its beginning up to `end`) and the end index (from
// `start` to its end) one step each in turn, and keeps the answer of
// whichever walk finishes first: both give the same set, so the cost is
// twice the shorter of the two, small for a window near either end of the
// catalogue and bounded by its size otherwise. The end index may hold
// records the catalogue no longer has (see fs_cache.hpp); those are
// recognised by their path no longer leading to them.
//
// Thread-safety: holds the catalogue's shared lock during the walk and
// hands out copies.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <cstdint>
#include <vector>

namespace faitra_host {

struct overlap_selection {
  // Copies of the overlapping records, marked ones included, in ascending
  // start_ts, then path.
  std::vector<csl::fs_entry> captures;
  // Catalogued captures without start_ts, plus those met during the walk
  // with a start_ts but no end_ts.
  uint64_t without_times = 0;
};

overlap_selection select_overlapping(csl::fs_cache& cache, uint64_t start, uint64_t end);

}  // namespace faitra_host
