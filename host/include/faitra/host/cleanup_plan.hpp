// Dry runs: what a cleanup would delete, computed from the catalogue
// without marking anything.
//
// plan_usage_cleanup follows the automatic cleanup's own rule: walk the
// creation index from the oldest capture, and take captures while the
// estimated usage is at or above the stop fraction (the same float
// comparison as fs_cleaner::should_continue_cleanup); each record walked
// lowers the estimate by its size, also a record that is already marked (as
// the cleaner does). Only catalogued, unmarked records are listed: those are
// the ones a run would mark. The plan is of a run starting now: the cleaner
// itself first refreshes the disk figures and waits, so a real run may take a
// few captures more or fewer.
//
// plan_age_cleanup lists what an age cleanup of files would mark: catalogued,
// unmarked captures with creation_ts <= cutoff (seconds).
//
// Thread-safety: each call takes the catalogue's shared lock for its
// duration; nothing in the catalogue changes.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>

#include <vector>

namespace faitra_host {

struct cleanup_plan {
  std::vector<csl::fs_entry> captures;  // oldest first
  unsigned long bytes = 0;              // sum of their sizes
  unsigned long estimated_used = 0;     // usage estimate after the run (automatic plan only)
};

cleanup_plan plan_usage_cleanup(const csl::fs_cache& cache, unsigned long used, unsigned long total, float stop);

cleanup_plan plan_age_cleanup(const csl::fs_cache& cache, unsigned long cutoff);

}  // namespace faitra_host
