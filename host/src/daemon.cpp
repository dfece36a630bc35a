#include <faitra/host/daemon.hpp>

#include <faitra/host/catalogue.hpp>
#include <faitra/host/catalogue_views.hpp>
#include <faitra/host/time_text.hpp>

#include <csl/fs_events.hpp>

#include <cdl/exception.hpp>

#include <sys/stat.h>

#include <filesystem>
#include <limits>
#include <stdexcept>

#ifndef FAITRA_VERSION
#error "FAITRA_VERSION must be defined by the build"
#endif

namespace faitra_host {

namespace {

// Set on the job thread, so that the metadata callback knows that it runs
// for an on-demand cleanup.
thread_local bool on_job_thread = false;

long steady_seconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

daemon_options normalise(daemon_options o) {
  if (o.root.empty()) throw std::invalid_argument("--root is required");
  o.root = normal_directory(o.root);
  std::set<std::string> watch;
  for (const std::string& w : o.watch) watch.insert(normal_directory(w));
  if (watch.empty()) watch.insert(o.root);
  for (const std::string& w : watch) {
    if (w != o.root && w.compare(0, o.root.size() + 1, o.root + "/") != 0 && o.root != "/") {
      throw std::invalid_argument("watched directory " + w + " is not inside the root " + o.root);
    }
    struct stat status {};
    if (::stat(w.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) {
      throw std::invalid_argument("watched directory " + w + " does not exist or is not a directory");
    }
  }
  // The usage ceiling is measured on one file system (the first watched
  // directory's): a watched directory elsewhere would fill unmeasured.
  struct stat first {};
  ::stat(watch.begin()->c_str(), &first);
  for (const std::string& w : watch) {
    struct stat status {};
    if (::stat(w.c_str(), &status) == 0 && status.st_dev != first.st_dev) {
      throw std::invalid_argument("watched directories " + *watch.begin() + " and " + w +
                                  " are on different file systems; the disk usage can only be measured on one");
    }
  }
  o.watch = std::move(watch);
  if (!(o.stop > 0.0F && o.stop <= o.trigger && o.trigger <= 1.0F)) {
    throw std::invalid_argument("the fractions must satisfy 0 < stop <= trigger <= 1");
  }
  if (o.suffixes.empty()) throw std::invalid_argument("at least one capture suffix is needed");
  for (const std::string& suffix : o.suffixes) {
    if (suffix.empty()) throw std::invalid_argument("a capture suffix must not be empty (every file would match)");
  }
  if (o.max_age_ns && *o.max_age_ns < NS_PER_SECOND) {
    throw std::invalid_argument("--max-age must be at least one second");
  }
  if (!o.hard_limit) {
    o.hard_limit = o.auto_cleanup && o.trigger < static_cast<float>(DEFAULT_HARD_LIMIT) ? DEFAULT_HARD_LIMIT : 0.0;
  } else if (*o.hard_limit != 0.0) {
    if (!(*o.hard_limit > 0.0 && *o.hard_limit < 1.0)) {
      throw std::invalid_argument("--hard-limit must lie between 0 and 1 (or be off)");
    }
    if (o.auto_cleanup && static_cast<float>(*o.hard_limit) <= o.trigger) {  // the trigger is a float
      throw std::invalid_argument("--hard-limit must be above --trigger: the ceiling that the automatic cleanup "
                                  "cannot keep is above the usage at which it starts");
    }
  }
  o.hold_dir = normal_directory(o.hold_dir.empty() ? o.root + "/.faitra-holds" : o.hold_dir);
  if (o.watch.count(o.hold_dir) != 0) {
    throw std::invalid_argument("the hold directory " + o.hold_dir + " must not be a watched directory");
  }
  return o;
}

std::unique_ptr<cdl::log> make_log(const daemon_options& o, cdl::log_type::value type, const std::string& name) {
  const std::string named = o.log_label.empty() ? name : name + " " + o.log_label;
  return std::make_unique<cdl::log>(type, cdl::log_facility::local0, named, o.log_level, o.log_stdout);
}

}  // namespace

std::string normal_directory(const std::string& dir) {
  std::string out = std::filesystem::absolute(dir).lexically_normal().string();
  while (out.size() > 1 && out.back() == '/') out.pop_back();
  return out;
}

const char* faitra_version() { return FAITRA_VERSION; }

// ---------------------------------------------------------------------------
// job_runner

job_runner::job_runner(cdl::log* log) : _log(log), _thread([this] { thread_body(); }) {}

job_runner::~job_runner() { stop(); }

bool job_runner::submit(std::string name, std::function<void()> job) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_stopping || _queue.size() >= MAX_QUEUED) return false;
    _queue.emplace_back(std::move(name), std::move(job));
  }
  _cv.notify_all();
  return true;
}

void job_runner::stop() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_stopping && !_queue.empty() && _log != nullptr) {
      _log->info("Dropping %lu queued cleanup request(s)", static_cast<unsigned long>(_queue.size()));
    }
    _stopping = true;
    _queue.clear();
  }
  _cv.notify_all();
  if (_thread.joinable()) _thread.join();
}

void job_runner::thread_body() {
  on_job_thread = true;
  std::unique_lock<std::mutex> lock(_mutex);
  for (;;) {
    _cv.wait(lock, [this] { return _stopping || !_queue.empty(); });
    if (_stopping) return;
    auto [name, job] = std::move(_queue.front());
    _queue.pop_front();
    lock.unlock();
    try {
      job();
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("%s failed: %s", name, e.what());
    }
    lock.lock();
  }
}

// ---------------------------------------------------------------------------
// daemon

capture_daemon::capture_daemon(daemon_options options)
    : _options(normalise(std::move(options))), _filter(_options.suffixes, _options.watch) {
  _log = make_log(_options, cdl::log_type::app_logic, "daemon");
  _tracker_log = make_log(_options, cdl::log_type::os, "tracker");
  _storage_log = make_log(_options, cdl::log_type::os, "storage");
  _cleaner_log = make_log(_options, cdl::log_type::app_logic, "cleaner");
  _core = std::make_unique<cdl::core>(_log.get());
  if (!_options.metadata_cleanup_cmd.empty()) {
    _metadata_command = std::make_unique<command_runner>(_options.metadata_cleanup_cmd);
    _metadata_command_jobs = std::make_unique<command_runner>(_options.metadata_cleanup_cmd);
  }
  if (!_options.reset_disk_cache_cmd.empty()) {
    _reset_command = std::make_unique<command_runner>(_options.reset_disk_cache_cmd);
  }

  try {
    _tracker_workers =
        std::make_unique<cdl::worker_group>(*_core, cdl::worker_group_config{1, "Tracker Worker Group"});
    _tracker_listeners = std::make_unique<cdl::task_listener_group>(*_tracker_workers);
    if (_options.export_to) {
      // First, so that its handlers run after everyone else's (see
      // catalogue_export.hpp).
      export_options to = *_options.export_to;
      to.who.root = _options.root;
      _export = std::make_unique<catalogue_export>(std::move(to), *_tracker_listeners, _log.get());
    }

    if (_options.derive_metadata) {
      // Before the scan, whose tasks for captures without attributes it takes.
      _deriver = std::make_unique<metadata_deriver>(*_tracker_listeners, true, _log.get());
    }
    _log->info("Scanning %s (%lu watched director%s)", _options.root,
               static_cast<unsigned long>(_options.watch.size()), _options.watch.size() == 1 ? "y" : "ies");
    catalogue built =
        build_catalogue(*_tracker_listeners, _options.root, _options.watch, true, _filter, _tracker_log.get());
    _cache = std::move(built.cache);
    _tracker = std::move(built.tracker);
    if (_export) _export->attach(_cache);
    if (_deriver) {
      _deriver->attach(_cache);
      _deriver->watch();
      for (const std::string& path : built.malformed) _deriver->submit(path);
    }
    for (const scan_problem& p : _filter.problems()) {
      _log->write(cdl::log_priority::warning, "Start-up scan skipped %s: %s", p.name, p.reason);
    }
    _log->info("Catalogued %lu captures", static_cast<unsigned long>(_cache->size()));
    if (!_tracker->monitoring()) {
      _log->critical("The directories are not being watched; only the reconcile keeps the catalogue current");
    }
    _tracker_listeners->task_channel(0).register_task_handler(&capture_daemon::count_deletion, this,
                                                              cdl::task_handler_order::first,
                                                              csl::FS_EVENT_VERSION);

    _storage = std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, _storage_log.get());
    _cleaner = std::make_unique<csl::fs_cleaner>(
        *_core, *_tracker_listeners, _storage,
        [this](unsigned long start, unsigned long end) { return clean_metadata(start, end); },
        _options.auto_cleanup, [this] { return reset_disk_cache(); }, _options.trigger, _options.stop,
        _options.verbose, _cleaner_log.get());
    _cleaner_seen.store(_cleaner.get());

    _reconciler = std::make_unique<reconciler>(_cache, *_tracker, *_tracker_listeners, _options.suffixes,
                                               _options.reconcile_interval, _counters, _log.get());
    _reconciler->already_reported(_filter.problems());
    if (_deriver) {
      metadata_deriver* deriver = _deriver.get();
      _reconciler->derive_with([deriver](csl::fs_entry& record) { deriver->overlay(record); },
                               [deriver](const std::string& path) { deriver->submit(path); });
    }
    // Links made from here on are caught live; earlier ones by the first
    // reconcile, which starts after it.
    _links = std::make_unique<link_watcher>(*_tracker_listeners, _options.watch, _filter,
                                            [this] { _reconciler->request(std::chrono::milliseconds(0)); },
                                            _tracker_log.get());
    _holds = std::make_unique<hold_registry>(_options.hold_dir, *_options.watch.begin(), _cache, _log.get());
    _runtime.start();
    _jobs = std::make_unique<job_runner>(_log.get());
    _reconciler->start();
    _history = std::make_unique<cleanup_history>(*_cleaner, _counters);
    _history_seen.store(_history.get());
    start_guards();
    if (_export) _export->start();
  } catch (...) {
    shutdown();
    throw;
  }
}

void capture_daemon::start_guards() {
  if (*_options.hard_limit > 0.0) {
    _hard_limit = std::make_unique<hard_limit_guard>(
        *_options.hard_limit, _storage, [this] { return _holds->held_paths(); }, _log.get());
    _tracker_listeners->task_channel(0).register_task_handler(&capture_daemon::capture_arrived, this,
                                                              cdl::task_handler_order::last,
                                                              csl::FS_EVENT_VERSION);
    _log->info("Hard limit: the oldest captures are deleted at once from %.1f%% in use",
               100 * *_options.hard_limit);
  } else {
    _log->info("Hard limit: off");
  }
  if (_options.max_age_ns) {
    _retention = std::make_unique<age_retention>(*_options.max_age_ns, *_cleaner, _cache, _log.get());
    _log->info("Max age: captures created more than %s ago are deleted (checked every %ld s)",
               format_duration_ns(*_options.max_age_ns), static_cast<long>(age_retention::CHECK_PERIOD.count()));
    _retention_thread = std::make_unique<periodic_thread>(
        "The max-age check", age_retention::CHECK_PERIOD, [this] { _retention->check(wall_clock_ns()); },
        _log.get());
  }
  _hold_upkeep = std::make_unique<periodic_thread>("The holds' upkeep", HOLD_UPKEEP_PERIOD,
                                                   [this] {
                                                     const uint64_t now = wall_clock_ns();
                                                     _holds->expire(now);
                                                     _holds->extend(now);
                                                   },
                                                   _log.get());
}

void capture_daemon::capture_arrived(cdl::task_ptr<csl::fs_entry_created>&) { _hard_limit->poke(); }

capture_daemon::~capture_daemon() { shutdown(); }

void capture_daemon::shutdown() {
  if (_shut_down) return;
  _shut_down = true;
  // On-demand metadata cleanups and disk cache refreshes are cut short. The
  // automatic cleanup's metadata command is left to finish: the cleaner
  // removes files after that step even when it fails, and files without
  // their metadata cleaned would leave the metadata behind.
  if (_metadata_command_jobs) _metadata_command_jobs->cancel_all();
  if (_reset_command) _reset_command->cancel_all();
  if (_history) _history->stop();
  if (_hard_limit) _hard_limit->stop();
  if (_retention_thread) _retention_thread->stop();
  if (_hold_upkeep) _hold_upkeep->stop();
  if (_jobs) _jobs->stop();
  if (_reconciler) _reconciler->stop();
  if (_deriver) _deriver->stop();
  if (_links) _links->stop();
  _runtime.stop();
  if (_tracker) _tracker->stop_monitoring();
  _tracker_listeners.reset();
  _tracker_workers.reset();
  if (_export) _export->stop(EXPORT_FLUSH);
  destroy_cleaner();
  _storage.reset();
  _tracker.reset();
  _cache.reset();
  _reconciler.reset();
  _deriver.reset();
  _links.reset();
  _export.reset();
  _jobs.reset();
  _history_seen.store(nullptr);
  _history.reset();
  _hold_upkeep.reset();
  _retention_thread.reset();
  _retention.reset();
  _hard_limit.reset();
  _holds.reset();
  if (_log) _log->info("Stopped");
}

void capture_daemon::destroy_cleaner() {
  if (!_cleaner) return;
  const bool pausing = steady_seconds() - _last_reset_request.load() <=
                       static_cast<long>(csl::fs_cleaner::DISK_CACHE_SETTLE_SECONDS) + 1;
  // The cleaner pauses before every usage check, also when it then finds
  // nothing to do: only a run that is removing captures is called a cleanup.
  if (_cleaner->cleanup_in_progress()) {
    _log->info("Waiting for the cleaner: a cleanup run is in progress; it stops after the capture it is deleting");
  } else if (pausing) {
    _log->info("Waiting for the cleaner: a usage check is in its %u-second pause; no cleanup is running",
               csl::fs_cleaner::DISK_CACHE_SETTLE_SECONDS);
  }
  _cleaner_seen.store(nullptr);
  _cleaner.reset();
}

cdl::nullable<std::string> capture_daemon::clean_metadata(unsigned long start, unsigned long end) {
  command_runner* runner = on_job_thread ? _metadata_command_jobs.get() : _metadata_command.get();
  if (runner == nullptr) {
    _log->debug("No metadata cleanup command; nothing to clean for %lu-%lu", start, end);
    return {};
  }
  _log->info("Running the metadata cleanup command for %lu-%lu", start, end);
  const command_result result = runner->run({std::to_string(start), std::to_string(end)});
  if (result.ok) return {};
  _counters.metadata_cleanup_failures.fetch_add(1);
  cleanup_history* history = _history_seen.load();
  if (!on_job_thread && history != nullptr) history->note_failure("metadata cleanup command: " + result.error);
  return cdl::nullable<std::string>(result.error);
}

bool capture_daemon::reset_disk_cache() {
  // The cleaner asks for a refresh before deciding, and, inside a run, once
  // more after removing its files: that second request marks a completed run.
  csl::fs_cleaner* cleaner = _cleaner_seen.load();
  if (cleaner != nullptr && cleaner->cleanup_in_progress()) _counters.cleanup_runs.fetch_add(1);
  _last_reset_request.store(steady_seconds());
  if (!_reset_command) return true;
  const command_result result = _reset_command->run({});
  if (!result.ok) {
    _log->error("The disk cache refresh command failed: %s", result.error);
    cleanup_history* history = _history_seen.load();
    if (history != nullptr) history->note_failure("disk cache refresh command: " + result.error);
  }
  return result.ok;
}

void capture_daemon::count_deletion(cdl::task_ptr<csl::fs_entry_deleted>& task) {
  csl::fs_entry record;
  if (!_cache->by_path(record, task->entry.path)) return;
  switch (record.deletion.load()) {
    case csl::fs_entry::deletion_by::requested:
      _counters.deleted_requested.fetch_add(1);
      break;
    case csl::fs_entry::deletion_by::cleanup:
      _counters.deleted_cleanup.fetch_add(1);
      break;
    case csl::fs_entry::deletion_by::none:
      _counters.removed_externally.fetch_add(1);
      break;
  }
}

metrics_sample capture_daemon::sample_metrics() {
  metrics_sample s;
  s.captures = _cache->size();
  const auto state = _storage->state();
  s.disk_used = state.used;
  s.disk_total = state.total;
  s.cleanup_in_progress = _cleaner->cleanup_in_progress();
  s.delete_queue = _storage->queued();
  s.scan_problems = _filter.problems().size();
  s.handler_failures = _core->failures();
  copy_counters(_counters, s);
  const retention_window window = read_retention(*_cache);
  s.oldest_start = window.oldest_start;
  s.newest_start = window.newest_start;
  if (_deriver) {
    const derive_counters& d = _deriver->counters();
    s.derived = d.derived.load();
    s.derive_bytes_read = d.bytes_read.load();
    s.derive_failures = d.failures.load();
    s.derive_queue = _deriver->queued();
  }
  if (_hard_limit) {
    const auto h = _hard_limit->sample();
    s.hard_limit_episodes = h.episodes;
    s.hard_limit_deleted = h.deleted;
  }
  if (_retention) {
    const auto r = _retention->sample();
    s.max_age_runs = r.runs;
    s.max_age_deleted = r.marked;
  }
  const auto held = _holds->summary();
  s.holds = held.holds;
  s.held_captures = held.captures;
  s.held_bytes = held.bytes;
  if (_export) s.catalogue_export = _export->status();
  return s;
}

}  // namespace faitra_host
