#include <faitra/host/hard_limit.hpp>

#include "thread_stop.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <exception>
#include <vector>

namespace faitra_host {

namespace {

using clock_type = std::chrono::steady_clock;

double fraction_of(unsigned long used, unsigned long total) {
  return total == 0 ? 0.0 : static_cast<double>(used) / static_cast<double>(total);
}

bool gone(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) != 0;
}

}  // namespace

hard_limit_guard::hard_limit_guard(double ceiling, std::shared_ptr<csl::fs_storage> storage, skip_type skip,
                                   cdl::log* log)
    : _ceiling(ceiling), _storage(std::move(storage)), _skip(std::move(skip)), _log(log) {
  _thread = std::thread([this] { thread_body(); });
}

hard_limit_guard::~hard_limit_guard() { stop(); }

void hard_limit_guard::poke() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _poked = true;
  }
  _cv.notify_all();
}

void hard_limit_guard::stop() {
  detail::stop_and_join(_mutex, _cv, _stopping, _thread);
}

hard_limit_guard::stats hard_limit_guard::sample() const {
  stats s;
  s.episodes = _episodes.load();
  s.deleted = _deleted.load();
  s.deleted_bytes = _deleted_bytes.load();
  s.highest = _highest.load();
  return s;
}

void hard_limit_guard::thread_body() {
  unsigned long last_used = 0;
  auto last_time = clock_type::now();
  double rate = 0;  // bytes per second by which usage rose lately, averaged over RATE_WINDOW
  for (;;) {
    std::chrono::milliseconds period = MAX_PERIOD;
    try {
      const auto figures = _storage->state();
      const auto now = clock_type::now();
      if (figures.total > 0) {
        const double fraction = fraction_of(figures.used, figures.total);
        if (fraction > _highest.load()) _highest.store(fraction);
        const double seconds = std::chrono::duration<double>(now - last_time).count();
        if (seconds > 0) {
          const double rise =
              figures.used > last_used ? static_cast<double>(figures.used - last_used) / seconds : 0.0;
          const double weight = std::min(1.0, seconds / std::chrono::duration<double>(RATE_WINDOW).count());
          rate = rate * (1 - weight) + rise * weight;
        }
        last_used = figures.used;
        last_time = now;
        // What the writer adds while a deletion is under way counts as
        // written already, up to the head room above the ceiling.
        const double total = static_cast<double>(figures.total);
        const auto lead = static_cast<unsigned long>(
            std::min(rate * std::chrono::duration<double>(LEAD).count(), (1 - _ceiling) * total));
        if (enforce(figures.used, figures.total, lead, rate)) continue;  // sample again at once
        // Sample four times within the time the rise would take to reach
        // the point of acting.
        const double gap = _ceiling * total - static_cast<double>(figures.used + lead);
        if (rate > 0) {
          const double wait_ms = gap / rate / 4 * 1000;
          period = std::chrono::milliseconds(static_cast<long>(
              std::clamp(wait_ms, static_cast<double>(MIN_PERIOD.count()), static_cast<double>(MAX_PERIOD.count()))));
        }
      }
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("Hard limit check failed: %s", e.what());
    }
    std::unique_lock<std::mutex> lock(_mutex);
    _cv.wait_for(lock, period, [this] { return _stopping || _poked; });
    if (_stopping) return;
    _poked = false;
  }
}

bool hard_limit_guard::enforce(unsigned long used, unsigned long total, unsigned long lead, double rate) {
  const auto limit = static_cast<unsigned long>(_ceiling * static_cast<double>(total));
  if (used + lead < limit) {
    if (_in_episode && _log != nullptr) {
      _log->info("Usage is back under the hard limit (%.1f%%) after deleting %lu capture(s) at once",
                 100 * fraction_of(used, total), _episode_deleted);
    }
    _in_episode = false;
    return false;
  }
  if (!_in_episode) {
    _in_episode = true;
    _episode_deleted = 0;
    _starved = false;
    _episodes.fetch_add(1);
    if (_log != nullptr) {
      _log->write(cdl::log_priority::warning,
                  "Usage %.1f%%, rising %.0f MB/s, reached the hard limit %.1f%%; deleting the oldest captures now",
                  100 * fraction_of(used, total), rate / 1e6, 100 * _ceiling);
    }
  }
  const unsigned long excess = used + lead - limit + 1;
  const std::set<std::string> skipped = _skip ? _skip() : std::set<std::string>();
  std::vector<std::pair<std::string, unsigned long>> chosen;
  unsigned long planned = 0;
  {
    csl::fs_storage::shared_guard guard(*_storage);
    const csl::fs_cache& cache = _storage->cache();
    const auto& paths = cache.path_cache();
    for (const auto& [created, record] : cache.creation_ts_cache()) {
      if (planned >= excess) break;
      if (record->is_deletion_pending() || skipped.count(record->path) != 0) continue;
      if (paths.lookup(record->path) != record) continue;  // a leftover index entry
      // Removed, but the tracker has not seen it yet (and the update that
      // brought its attributes may have reset its marker): nothing to free.
      if (gone(record->path)) continue;
      chosen.emplace_back(record->path, record->file_size);
      planned += record->file_size;
    }
  }
  std::vector<std::string> marked;
  for (const auto& [path, size] : chosen) {
    if (!_storage->delete_by_path(path, csl::fs_entry::deletion_by::cleanup)) continue;
    marked.push_back(path);
    _deleted.fetch_add(1);
    _deleted_bytes.fetch_add(size);
    ++_episode_deleted;
    if (_log != nullptr) _log->info("Hard limit: deleting %s (%lu bytes)", path, size);
  }
  if (marked.empty()) {
    if (chosen.empty() && !_starved && _log != nullptr) {
      _log->error("Usage is above the hard limit and no capture is left to delete");
    }
    _starved = chosen.empty();
    return false;
  }
  wait_gone(marked);
  return true;
}

void hard_limit_guard::wait_gone(const std::vector<std::string>& paths) {
  const auto deadline = clock_type::now() + REMOVAL_WAIT;
  for (const std::string& path : paths) {
    while (!gone(path) && clock_type::now() < deadline) {
      std::unique_lock<std::mutex> lock(_mutex);
      if (_cv.wait_for(lock, MIN_PERIOD, [this] { return _stopping; })) return;
    }
  }
}

}  // namespace faitra_host
