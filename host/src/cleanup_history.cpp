#include <faitra/host/cleanup_history.hpp>

#include "thread_stop.hpp"

#include <ctime>

namespace faitra_host {

cleanup_history::cleanup_history(const csl::fs_cleaner& cleaner, const daemon_counters& counters)
    : _cleaner(cleaner), _counters(counters), _thread([this] { thread_body(); }) {}

cleanup_history::~cleanup_history() { stop(); }

void cleanup_history::stop() {
  detail::stop_and_join(_mutex, _cv, _stopping, _thread);
}

void cleanup_history::note_failure(const std::string& what) {
  std::lock_guard<std::mutex> lock(_mutex);
  // The failure may come before the thread saw the run begin.
  if (!_open && _cleaner.cleanup_in_progress()) sample_locked();
  if (!_open) return;
  _open->failures += 1;
  _open->last_failure = what;
}

std::vector<cleanup_run> cleanup_history::runs() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::vector<cleanup_run> out;
  if (_open) {
    out.push_back(*_open);
    out.back().deleted = _counters.deleted_cleanup.load() - _deleted_at_open;
  }
  out.insert(out.end(), _finished.begin(), _finished.end());
  return out;
}

void cleanup_history::thread_body() {
  std::unique_lock<std::mutex> lock(_mutex);
  while (!_stopping) {
    sample_locked();
    _cv.wait_for(lock, POLL_INTERVAL, [this] { return _stopping; });
  }
}

void cleanup_history::sample_locked() {
  const bool running = _cleaner.cleanup_in_progress();
  if (running && !_open) {
    cleanup_run run;
    run.started_at = static_cast<long>(std::time(nullptr));
    run.used_before = _cleaner.disk_usage();
    run.total = _cleaner.disk_total();
    _open = run;
    _deleted_at_open = _counters.deleted_cleanup.load();
  } else if (!running && _open) {
    _open->finished_at = static_cast<long>(std::time(nullptr));
    _open->used_after = _cleaner.disk_usage();
    _open->deleted = _counters.deleted_cleanup.load() - _deleted_at_open;
    _finished.push_front(*_open);
    if (_finished.size() > KEPT_RUNS) _finished.pop_back();
    _open.reset();
  }
}

}  // namespace faitra_host
