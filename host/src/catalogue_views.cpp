#include <faitra/host/catalogue_views.hpp>

#include <algorithm>

namespace faitra_host {

double retention_window::span_seconds() const {
  if (!oldest_start || !newest_start) return 0.0;
  return static_cast<double>(*newest_start - *oldest_start) / 1e9;
}

retention_window read_retention(const csl::fs_cache& cache) {
  retention_window out;
  csl::fs_cache::shared_guard lock(cache);
  const csl::fs_cache::ts_index& index = cache.start_ts_cache();
  if (index.empty()) return out;
  out.oldest_start = index.begin()->first;
  out.newest_start = index.rbegin()->first;
  out.dated_captures = index.size();
  return out;
}

timeline read_timeline(const csl::fs_cache& cache, unsigned long buckets, std::optional<unsigned long> start,
                       std::optional<unsigned long> end) {
  timeline out;
  buckets = std::clamp(buckets, 1UL, MAX_TIMELINE_BUCKETS);
  csl::fs_cache::shared_guard lock(cache);
  const csl::fs_cache::ts_index& index = cache.start_ts_cache();
  if (!start) {
    if (index.empty()) return out;
    start = index.begin()->first;
  }
  if (!end) {
    if (index.empty()) return out;
    end = index.rbegin()->first;
  }
  if (*start > *end) return out;
  out.start = *start;
  out.end = *end;
  // Rounded up, so that the last bucket reaches `end`; at least 1 ns.
  const unsigned long span = *end - *start;
  out.width = span / buckets + 1;
  out.bytes.assign(buckets, 0);
  out.captures.assign(buckets, 0);
  const auto last = index.upper_bound(*end);
  for (auto it = index.lower_bound(*start); it != last; ++it) {
    const size_t bucket = std::min<size_t>((it->first - *start) / out.width, buckets - 1);
    out.bytes[bucket] += it->second->file_size;
    out.captures[bucket] += 1;
  }
  return out;
}

}  // namespace faitra_host
