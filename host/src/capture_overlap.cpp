#include <faitra/host/capture_overlap.hpp>

#include <algorithm>
#include <string_view>

namespace faitra_host {

overlap_selection select_overlapping(csl::fs_cache& cache, uint64_t start, uint64_t end) {
  overlap_selection out;
  if (start > end) return out;
  std::vector<const csl::fs_entry*> found;
  csl::fs_cache::shared_guard lock(cache);
  const auto& by_start = cache.start_ts_cache();
  const auto& by_end = cache.end_ts_cache();
  const auto& by_path = cache.path_cache();
  out.without_times = by_path.size() - by_start.size();

  auto s = by_start.begin();
  const auto s_last = by_start.upper_bound(end);
  auto e = by_end.lower_bound(start);
  const auto e_last = by_end.end();
  std::vector<const csl::fs_entry*> from_start;
  std::vector<const csl::fs_entry*> from_end;
  for (;;) {
    if (s == s_last) {
      found = std::move(from_start);
      break;
    }
    if (e == e_last) {
      // Only now are the end walk's records checked against the path index
      // (a lookup each): they are the answer, usually a handful.
      for (const csl::fs_entry* record : from_end) {
        if (by_path.lookup(record->path) == record) found.push_back(record);
      }
      std::sort(found.begin(), found.end());
      found.erase(std::unique(found.begin(), found.end()), found.end());
      break;
    }
    // Each step reads a record at an unrelated address; asking for the next
    // ones early lets the two walks' cache misses overlap.
    const auto s_next = std::next(s);
    const auto e_next = std::next(e);
    if (s_next != s_last) __builtin_prefetch(s_next->second);
    if (e_next != e_last) __builtin_prefetch(e_next->second);
    const csl::fs_entry& a = *s->second;
    if (a.end_ts.is_null()) {
      ++out.without_times;
    } else if (*a.end_ts >= start) {
      from_start.push_back(&a);
    }
    s = s_next;
    const csl::fs_entry& b = *e->second;
    if (!b.start_ts.is_null() && *b.start_ts <= end && !b.end_ts.is_null() && *b.end_ts >= start) {
      from_end.push_back(&b);
    }
    e = e_next;
  }
  std::sort(found.begin(), found.end(), [](const csl::fs_entry* x, const csl::fs_entry* y) {
    if (*x->start_ts != *y->start_ts) return *x->start_ts < *y->start_ts;
    return x->path < y->path;
  });
  out.captures.reserve(found.size());
  for (const csl::fs_entry* record : found) out.captures.push_back(*record);
  return out;
}

}  // namespace faitra_host
