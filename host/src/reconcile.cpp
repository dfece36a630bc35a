#include <faitra/host/reconcile.hpp>

#include <faitra/host/capture_attributes.hpp>
#include <faitra/host/catalogue.hpp>

#include "thread_stop.hpp"

#include <csl/fs_reader.hpp>

#include <cdl/exception.hpp>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <map>

namespace faitra_host {

namespace {

long now_seconds() { return static_cast<long>(std::time(nullptr)); }

// Raised inside a run when the reconciler is asked to stop.
struct stopping_signal {};

}  // namespace

reconcile_task::~reconcile_task() = default;

const std::string& reconcile_task::name_static() {
  static const std::string name("faitra_reconcile_task");
  return name;
}

const cdl::task_type& reconcile_task::type() const { return cdl::task_type::identify<reconcile_task>(); }

const std::string& reconcile_task::name() const { return name_static(); }

std::unique_ptr<csl::fs_cache> scan_directories(const std::set<std::string>& dirs,
                                                const std::vector<std::string>& suffixes,
                                                std::vector<scan_problem>& problems, const record_overlay& overlay) {
  capture_filter filter(suffixes, dirs);
  const csl::fs_reader::entry_callback ignore = [](csl::fs_entry&) {};
  for (;;) {
    auto cache = std::make_unique<csl::fs_cache>();
    csl::fs_reader reader(filter, csl::fs_tracker::EMPTY_FILE_SIZE_LIMIT, HASH_ATTRIBUTE, START_ATTRIBUTE,
                          END_ATTRIBUTE, CREATION_ATTRIBUTE, {}, nullptr);
    try {
      for (const std::string& dir : dirs) reader.collect_files(dir, *cache, ignore, ignore);
    } catch (const cdl::exception& e) {
      const bool attribute = dynamic_cast<const cdl::unrecognized_value_error*>(&e) != nullptr ||
                             dynamic_cast<const cdl::not_in_range_error*>(&e) != nullptr;
      if (!attribute || filter.validating()) throw;
      filter.validate_attributes();
      continue;
    }
    catalogue_leniently(*cache, filter.malformed_paths());
    problems = filter.problems();
    if (overlay) {
      std::vector<csl::fs_entry> lacking;
      {
        csl::fs_cache::shared_guard lock(*cache);
        for (const auto& record : cache->path_cache()) {
          if (record->key.is_null() || record->start_ts.is_null() || record->end_ts.is_null()) lacking.push_back(*record);
        }
      }
      for (csl::fs_entry& record : lacking) {
        overlay(record);
        cache->update(record);
      }
    }
    return cache;
  }
}

bool same_metadata(const csl::fs_entry& a, const csl::fs_entry& b) {
  return a.key == b.key && a.creation_ts == b.creation_ts && a.start_ts == b.start_ts && a.end_ts == b.end_ts &&
         a.file_size == b.file_size;
}

std::vector<std::string> differing_paths(const csl::fs_cache& catalogue, const csl::fs_cache& disk) {
  // A copy of the live catalogue, taken under its lock (records are copied
  // under the lock so their fields are consistent).
  std::map<std::string, csl::fs_entry> live;
  {
    csl::fs_cache::shared_guard lock(catalogue);
    for (const auto& record : catalogue.path_cache()) live.emplace(record->path, *record);
  }
  std::vector<std::string> out;
  csl::fs_cache::shared_guard lock(disk);
  auto l = live.begin();
  auto d = disk.path_cache().begin();
  const auto d_end = disk.path_cache().end();
  while (l != live.end() || d != d_end) {
    if (d == d_end || (l != live.end() && l->first < (*d)->path)) {
      out.push_back(l->first);  // catalogued, not on disk
      ++l;
    } else if (l == live.end() || (*d)->path < l->first) {
      out.push_back((*d)->path);  // on disk, not catalogued
      ++d;
    } else {
      if (!same_metadata(l->second, **d)) out.push_back(l->first);
      ++l;
      ++d;
    }
  }
  return out;
}

reconciler::reconciler(std::shared_ptr<csl::fs_cache> cache, csl::fs_tracker& tracker, cdl::task_listener_group& group,
                       std::vector<std::string> suffixes, std::chrono::seconds interval, daemon_counters& counters,
                       cdl::log* log)
    : _cache(std::move(cache)),
      _tracker(tracker),
      _group(group),
      _suffixes(std::move(suffixes)),
      _interval(interval),
      _counters(counters),
      _log(log) {
  _group.task_channel(0).register_task_handler(&reconciler::handle, this, cdl::task_handler_order::normal,
                                               static_cast<unsigned long>(-1));
}

reconciler::~reconciler() { stop(); }

void reconciler::derive_with(record_overlay overlay, std::function<void(const std::string&)> unattributed) {
  _overlay = std::move(overlay);
  _unattributed = std::move(unattributed);
}

void reconciler::already_reported(const std::vector<scan_problem>& problems) {
  std::lock_guard<std::mutex> lock(_mutex);
  for (const scan_problem& p : problems) _reported.insert(p.name);
}

void reconciler::start() {
  std::lock_guard<std::mutex> lock(_mutex);
  if (_thread.joinable() || _stopping) return;
  _requested = 1;  // the first run happens at once
  _thread = std::thread([this] { thread_body(); });
}

void reconciler::stop() {
  detail::stop_and_join(_mutex, _cv, _stopping, _thread);
}

std::optional<reconcile_result> reconciler::request(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(_mutex);
  if (_stopping || !_thread.joinable()) return std::nullopt;
  const unsigned long wanted = ++_requested;
  _cv.notify_all();
  if (!_cv.wait_for(lock, timeout, [&] { return _stopping || _completed >= wanted; })) return std::nullopt;
  if (_completed < wanted || _last_generation < wanted) return std::nullopt;
  return _last;
}

std::optional<reconcile_result> reconciler::last() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _last;
}

void reconciler::thread_body() {
  using clock = std::chrono::steady_clock;
  std::unique_lock<std::mutex> lock(_mutex);
  auto next = clock::now() + _interval;
  unsigned long overflows_seen = _tracker.queue_overflows();
  // After lost events, a run leaves files modified in the last seconds to
  // the tracker, whose events for them may be lost too: one more run once
  // they are quiet. None is due while it is the largest time.
  auto follow_up = clock::time_point::max();
  while (!_stopping) {
    bool after_overflow = false;
    while (!_stopping && _requested <= _completed) {
      auto wake = clock::now() + OVERFLOW_POLL;
      if (_interval.count() > 0) wake = std::min(wake, next);
      wake = std::min(wake, follow_up);
      _cv.wait_until(lock, wake);
      const auto now = clock::now();
      const unsigned long overflows = _tracker.queue_overflows();
      if (overflows != overflows_seen) {
        _counters.queue_overflows.fetch_add(overflows - overflows_seen);
        overflows_seen = overflows;
        if (_log != nullptr) {
          _log->write(cdl::log_priority::warning,
                      "The inotify queue overflowed and file events were lost; reconciling now");
        }
        after_overflow = true;
      } else if (now >= follow_up) {
        follow_up = clock::time_point::max();
        after_overflow = true;
      } else if (!(_interval.count() > 0 && now >= next)) {
        continue;
      }
      _requested = _completed + 1;
    }
    if (_stopping) break;
    const unsigned long generation = _requested;
    lock.unlock();
    std::optional<reconcile_result> result;
    try {
      result = run_once();
    } catch (const stopping_signal&) {
      lock.lock();
      break;
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("Reconcile failed: %s", e.what());
    }
    lock.lock();
    next = clock::now() + _interval;
    if (!result) {
      // A failed run answers the requests it covered with nothing.
      _completed = generation;
      _cv.notify_all();
      continue;
    }
    if (after_overflow && result->deferred > 0) follow_up = clock::now() + std::chrono::seconds(QUIET_SECONDS + 1);
    for (const scan_problem& p : result->problems) {
      if (_reported.insert(p.name).second && _log != nullptr) {
        _log->write(cdl::log_priority::warning, "Reconcile skipped %s: %s", p.name, p.reason);
      }
    }
    _last = std::move(result);
    _last_generation = generation;
    _completed = generation;
    _counters.reconcile_runs.fetch_add(1);
    _cv.notify_all();
  }
}

reconcile_result reconciler::run_once() {
  reconcile_result result;
  std::unique_ptr<csl::fs_cache> disk = scan_directories(_tracker.paths(), _suffixes, result.problems, _overlay);
  std::vector<std::string> paths = differing_paths(*_cache, *disk);
  disk.reset();
  if (!paths.empty()) {
    {
      // Let inotify events that happened before the scan reach the
      // tracker's queue first.
      std::unique_lock<std::mutex> lock(_mutex);
      if (_cv.wait_for(lock, SETTLE_PAUSE, [this] { return _stopping; })) {
        throw stopping_signal{};
      }
    }
    auto done = std::make_shared<std::promise<reconcile_result>>();
    std::future<reconcile_result> future = done->get_future();
    cdl::task_ptr<cdl::task> task(cdl::memory_pool<reconcile_task>::make(std::move(paths), done));
    done.reset();
    if (!_group.task_channel(0).push(std::move(task), static_cast<unsigned long>(-1), false)) {
      throw std::runtime_error("the tracker's channel refused the reconcile task");
    }
    for (;;) {
      if (future.wait_for(std::chrono::milliseconds(100)) == std::future_status::ready) break;
      std::lock_guard<std::mutex> lock(_mutex);
      if (_stopping) throw stopping_signal{};
    }
    reconcile_result repaired = future.get();  // raises if the task was dropped
    repaired.problems = std::move(result.problems);
    result = std::move(repaired);
  }
  result.finished_at = now_seconds();
  if (_log != nullptr && (result.added + result.removed + result.updated) > 0) {
    _log->info("Reconcile repaired the catalogue: %lu added, %lu removed, %lu updated, %lu deferred", result.added,
               result.removed, result.updated, result.deferred);
  }
  return result;
}

void reconciler::handle(cdl::task_ptr<reconcile_task>& task) {
  reconcile_result result;
  try {
    for (const std::string& path : task->paths) repair(path, result);
    task->done->set_value(std::move(result));
  } catch (...) {
    task->done->set_exception(std::current_exception());
  }
}

void reconciler::repair(const std::string& path, reconcile_result& result) {
  csl::fs_entry fresh(path);
  struct stat status {};
  const bool found = ::stat(path.c_str(), &status) == 0;
  if (!found && errno != ENOENT && errno != ENOTDIR) return;  // cannot tell; leave it
  // Only regular files (possibly through a link) are captures.
  const bool on_disk = found && S_ISREG(status.st_mode);

  if (!on_disk) {
    if (_cache->delete_by_path(nullptr, path)) {
      ++result.removed;
      _counters.drift_removed.fetch_add(1);
      if (_log != nullptr) _log->info("Reconcile: %s is gone from disk; removed from the catalogue", path);
    }
    return;
  }

  csl::fs_reader& reader = _tracker.reader();  // ours to use: we run on the tracker's channel
  if (!reader.load_attributes(fresh)) return;  // vanished just now: the tracker will see it
  try {
    reader.load_extended_attributes(fresh);
  } catch (const cdl::exception&) {
    read_capture_attributes(path).apply_to(fresh);  // the malformed ones read as absent
  }
  if (_overlay) _overlay(fresh);

  {
    csl::fs_cache::guard lock(*_cache);  // exclusive: nobody marks a record meanwhile
    const csl::fs_entry* position = _cache->path_cache().lookup(path);
    if (position == nullptr) {
      if (now_seconds() - static_cast<long>(status.st_mtim.tv_sec) < QUIET_SECONDS) {
        ++result.deferred;
        return;
      }
      if (_cache->insert(std::make_shared<csl::fs_entry>(fresh))) {
        ++result.added;
        _counters.drift_added.fetch_add(1);
        if (_log != nullptr) _log->info("Reconcile: %s was not catalogued; added", path);
        if (fresh.key.is_null() && _unattributed) _unattributed(path);
      }
      return;
    }
    const csl::fs_entry& stored = *position;
    if (same_metadata(stored, fresh)) return;
    fresh.deletion.store(stored.deletion.load());  // update() copies the marker
    if (_cache->update(fresh)) {
      ++result.updated;
      _counters.drift_updated.fetch_add(1);
      if (_log != nullptr) _log->info("Reconcile: %s differed from the disk; updated", path);
    }
  }
}

}  // namespace faitra_host
