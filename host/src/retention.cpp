#include <faitra/host/retention.hpp>

#include <faitra/host/time_text.hpp>

namespace faitra_host {

age_retention::age_retention(uint64_t max_age_ns, csl::fs_cleaner& cleaner, std::shared_ptr<csl::fs_cache> cache,
                             cdl::log* log)
    : _max_age_ns(max_age_ns), _cleaner(cleaner), _cache(std::move(cache)), _log(log) {}

void age_retention::check(uint64_t now_ns) {
  _checks.fetch_add(1);
  if (now_ns < _max_age_ns) return;
  const unsigned long cutoff = (now_ns - _max_age_ns) / NS_PER_SECOND;
  _last_cutoff.store(cutoff);
  unsigned long due = 0;
  {
    csl::fs_cache::shared_guard guard(*_cache);
    const auto& paths = _cache->path_cache();
    const auto& by_creation = _cache->creation_ts_cache();
    for (auto it = by_creation.begin(); it != by_creation.end() && it->first <= cutoff; ++it) {
      const csl::fs_entry& record = *it->second;
      if (!record.is_deletion_pending() && paths.lookup(record.path) == &record) ++due;
    }
  }
  if (due == 0) return;
  if (_log != nullptr) {
    _log->info("Max age %s: deleting %lu capture(s) created at or before %s", format_duration_ns(_max_age_ns), due,
               format_time_ns(static_cast<uint64_t>(cutoff) * NS_PER_SECOND));
  }
  _runs.fetch_add(1);
  _marked.fetch_add(due);
  _cleaner.start_age_cleanup(csl::age_cleanup_state::files, cutoff);
}

age_retention::stats age_retention::sample() const {
  stats s;
  s.checks = _checks.load();
  s.runs = _runs.load();
  s.marked = _marked.load();
  s.last_cutoff = _last_cutoff.load();
  return s;
}

}  // namespace faitra_host
