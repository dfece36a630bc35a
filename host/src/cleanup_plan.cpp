#include <faitra/host/cleanup_plan.hpp>

#include <csl/fs_cleaner.hpp>

namespace faitra_host {

namespace {

// The creation index keeps entries of records removed by a time-range
// deletion; a record is still catalogued only if the path index holds that
// very record.
bool catalogued(const csl::fs_cache& cache, const csl::fs_entry* record) {
  return cache.path_cache().lookup(record->path) == record;
}

void take(cleanup_plan& plan, const csl::fs_cache& cache, const csl::fs_entry* record) {
  if (record->is_deletion_pending() || !catalogued(cache, record)) return;
  plan.captures.push_back(*record);
  plan.bytes += record->file_size;
}

}  // namespace

cleanup_plan plan_usage_cleanup(const csl::fs_cache& cache, unsigned long used, unsigned long total, float stop) {
  cleanup_plan plan;
  csl::fs_cache::shared_guard lock(cache);
  unsigned long estimate = used;
  bool wrapped = false;
  for (const auto& [creation, record] : cache.creation_ts_cache()) {
    if (cache.size() == 0 || csl::fs_cleaner::disk_usage_percent(estimate, total) < stop) break;
    take(plan, cache, record);
    // Unclamped, as in the cleaner: an estimate that falls "below zero"
    // wraps around, and the run then takes every remaining capture.
    wrapped = wrapped || record->file_size > estimate;
    estimate -= record->file_size;
  }
  plan.estimated_used = wrapped ? 0 : estimate;
  return plan;
}

cleanup_plan plan_age_cleanup(const csl::fs_cache& cache, unsigned long cutoff) {
  cleanup_plan plan;
  csl::fs_cache::shared_guard lock(cache);
  const auto& index = cache.creation_ts_cache();
  const auto last = index.upper_bound(cutoff);
  for (auto it = index.begin(); it != last; ++it) take(plan, cache, it->second);
  return plan;
}

}  // namespace faitra_host
