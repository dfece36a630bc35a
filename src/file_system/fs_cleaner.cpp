#include <csl/fs_cleaner.hpp>

#include <cdl/exception.hpp>
#include <cdl/format.hpp>
#include <cdl/impl/task_mapping.hpp>
#include <cdl/ref_guard.hpp>
#include <cdl/sys.hpp>

#include <unistd.h>

#include <exception>
#include <limits>

namespace csl {

namespace {

constexpr unsigned long NO_LIMIT = std::numeric_limits<unsigned long>::max();
constexpr unsigned long GUARD_QUEUE_CAPACITY = 256;

const char* cleanup_mode_label(age_cleanup_state::cleanup_mode mode) {
  switch (mode) {
    case age_cleanup_state::files:
      return "capture files only";
    case age_cleanup_state::metadata:
      return "associated metadata only";
    case age_cleanup_state::both:
      return "both capture files and the associated metadata";
    case age_cleanup_state::disabled:
      break;
  }
  return "";
}

}  // namespace

fs_cleanup_task::~fs_cleanup_task() = default;

const cdl::task_type& fs_cleanup_task::type() const {
  static const cdl::task_type stored_type = cdl::task_type::identify_from_name(name_static());
  return stored_type;
}

const std::string& fs_cleanup_task::name() const {
  static const std::string stored_name = type().name();
  return stored_name;
}

const std::string& fs_cleanup_task::name_static() {
  static const std::string stored_name("fs_cleanup_task");
  return stored_name;
}

std::string bytes_to_metric(unsigned long bytes) {
  constexpr float PER_1024 = 0.0009765625f;
  if (bytes < 1024UL) return cdl::format_str("%lu B", bytes);
  const float value = static_cast<float>(bytes);
  if (bytes < 1048576UL) return cdl::format_str("%0.2f KB", value * PER_1024);
  if (bytes < 1073741824UL) return cdl::format_str("%0.2f  MB", value * PER_1024 * PER_1024);
  return cdl::format_str("%0.2f GB", value * PER_1024 * PER_1024 * PER_1024);
}

fs_cleaner::fs_cleaner(cdl::core& core, cdl::task_listener_group& producers, std::shared_ptr<fs_storage> storage,
                       metadata_cleanup_type metadata_cleanup_callback, bool enabled,
                       reset_disk_cache_type reset_disk_cache, float trigger, float stop, bool verbose,
                       cdl::log* log)
    : _storage(std::move(storage)),
      _metadata_cleanup_callback(std::move(metadata_cleanup_callback)),
      _metadata_cleanup_enabled(true),
      _worker_group(std::make_unique<cdl::worker_group>(core,
                                                        cdl::worker_group_config{1, "Capture Cleaner Worker Group"})),
      _listener_group(std::make_unique<cdl::task_listener_group>(*_worker_group)),
      _cleanup_in_progress(false),
      _stop_requested(false),
      _reset_disk_cache(std::move(reset_disk_cache)),
      _trigger(trigger),
      _stop(stop),
      _verbose(verbose),
      _log(log) {
  if (!enabled) return;
  for (auto& channel : producers.task_channels()) {
    channel->register_task_handler<fs_entry_created>(&fs_cleaner::handle, this, cdl::task_handler_order::normal,
                                                     NO_LIMIT);
  }
  _listener_group->task_channel(0).register_task_handler<fs_cleanup_task>(
      &fs_cleaner::handle, this, cdl::task_handler_order::normal, NO_LIMIT);
  push_cleanup_task();
}

fs_cleaner::~fs_cleaner() {
  _stop_requested = true;
  // Waits for a running cleanup (it stops between files) and drops queued
  // checks, while everything the run uses is still alive.
  _listener_group.reset();
  _worker_group.reset();
}

void fs_cleaner::push_cleanup_task() {
  _listener_group->task_channel(0).push(cdl::memory_pool<fs_cleanup_task>::make(), NO_LIMIT, false);
}

// ---------------------------------------------------------------------------
// Disk usage and thresholds

void fs_cleaner::read_disk_usage(bool reset_cache) {
  if (reset_cache) {
    const std::string response;  // the refresh reports nothing back
    try {
      if (!_reset_disk_cache()) cdl::throw_assert(CDL_FILE_NAME, 37);
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("Failed to reset disk cache: %s. Response: %s", e.what(), response);
    }
    ::sleep(DISK_CACHE_SETTLE_SECONDS);
  }
  const auto figures = _storage->state();
  _disk_total = figures.total;
  _disk_usage = figures.used;
}

float fs_cleaner::disk_usage_percent(unsigned long used, unsigned long total) {
  return static_cast<float>(used) / static_cast<float>(total);
}

bool fs_cleaner::should_start_cleanup() {
  const unsigned long usage = _disk_usage;
  const unsigned long total = _disk_total;
  const float percent = disk_usage_percent(usage, total);
  const bool in_progress = _cleanup_in_progress;
  const unsigned long cache_size = _storage->cache().size();
  const bool result = !in_progress && cache_size != 0 && percent >= _trigger;
  if (_verbose && _log != nullptr) {
    _log->debug(
        "should_start_cleanup(): disk_usage: %lu, disk_total: %lu, cleanup_in_progress: %lu, cache_size: %lu, percent: %0.2f%%, trigger: %0.2f%%: %lu",  // NOLINT(whitespace/line_length): one text, kept greppable
        usage, total, static_cast<unsigned long>(in_progress), cache_size, percent, _trigger,
        static_cast<unsigned long>(result));
  }
  return result;
}

bool fs_cleaner::should_continue_cleanup(unsigned long est_disk_usage, unsigned long est_disk_total) {
  const float percent = disk_usage_percent(est_disk_usage, est_disk_total);
  const unsigned long cache_size = _storage->cache().size();
  const bool result = cache_size != 0 && percent >= _stop;
  if (_verbose && _log != nullptr) {
    _log->debug(
        "should_continue_cleanup(): est_disk_usage: %lu, est_disk_total: %lu, cache_size: %lu, percent: %0.2f%%, stop: %0.2f%%: %lu",  // NOLINT(whitespace/line_length): one text, kept greppable
        est_disk_usage, est_disk_total, cache_size, percent, _stop, static_cast<unsigned long>(result));
  }
  return result;
}

// ---------------------------------------------------------------------------
// Automatic cleanup

void fs_cleaner::handle(cdl::task_ptr<fs_entry_created>&) {
  read_disk_usage(false);
  if (should_start_cleanup()) push_cleanup_task();
}

void fs_cleaner::handle(cdl::task_ptr<fs_cleanup_task>&) {
  read_disk_usage(true);
  if (!should_start_cleanup()) return;  // also ends duplicates queued during a run
  try {
    cdl::ref_guard<std::atomic<bool>, bool> in_progress(_cleanup_in_progress, true, false, nullptr, nullptr,
                                                        GUARD_QUEUE_CAPACITY);
    run_cleanup();
  } catch (const std::exception& e) {
    if (_log != nullptr) _log->critical("Failed cleaning up captures: %s", e.what());
  }
}

void fs_cleaner::run_cleanup() {
  if (_log != nullptr) {
    _log->info("Filesystem cleanup has started. Total: %s, Free: %s, Used: %0.2f%%, PCAPs: %lu",
               bytes_to_metric(_disk_total), bytes_to_metric(_disk_total - _disk_usage),
               disk_usage_percent(_disk_usage, _disk_total) * 100.0f,
               static_cast<unsigned long>(_storage->cache().size()));
  }
  cdl::nullable<unsigned long> start;
  cdl::nullable<unsigned long> end;
  select_pcaps_for_deletion(_candidates, start, end);
  if (_stop_requested) return;

  // Metadata first: once the files are gone nothing points at it any more.
  start_metadata_cleanup(start, end, true);

  for (const fs_entry& candidate : _candidates) {
    if (_log != nullptr) _log->info("Deleting %s...", candidate.path);
    cdl::sys_remove_path(candidate.path, true);
    if (_log != nullptr) _log->debug("Deleting %s done.", candidate.path);
    if (_stop_requested) return;
  }

  read_disk_usage(true);
  if (_log != nullptr) {
    _log->info("Filesystem cleanup has %s. Total: %s, Free: %s, Used: %0.2f%%, PCAPs: %lu, Deleted: %lu",
               _stop_requested ? "been stopped" : "finished", bytes_to_metric(_disk_total),
               bytes_to_metric(_disk_total - _disk_usage), disk_usage_percent(_disk_usage, _disk_total) * 100.0f,
               static_cast<unsigned long>(_storage->cache().size()),
               static_cast<unsigned long>(_candidates.size()));
  }
}

void fs_cleaner::select_pcaps_for_deletion(std::vector<fs_entry>& out, cdl::nullable<unsigned long>& start,
                                           cdl::nullable<unsigned long>& end) {
  unsigned long estimate = _disk_usage;
  _candidates.clear();
  fs_storage::shared_guard guard(*_storage);
  const fs_cache::ts_index& index = _storage->cache().creation_ts_cache();
  auto it = index.begin();
  while (it != index.end() && !_stop_requested && should_continue_cleanup(estimate, _disk_total)) {
    fs_entry& record = *it->second;
    auto expected = fs_entry::deletion_by::none;
    if (record.deletion.compare_exchange_strong(expected, fs_entry::deletion_by::cleanup)) out.push_back(record);
    estimate -= record.file_size;  // unclamped, also for records marked by others
    if (!record.start_ts.is_null()) {
      if (start.is_null()) start = *record.start_ts;
      end = *record.start_ts;
    }
    ++it;
    if (_stop_requested) return;
  }
  if (it != index.end() && !it->second->start_ts.is_null()) end = *it->second->start_ts;
}

// ---------------------------------------------------------------------------
// Age and metadata cleanup

void fs_cleaner::start_age_cleanup(age_cleanup_state::cleanup_mode mode, unsigned long cutoff) {
  if (mode == age_cleanup_state::disabled) {
    cdl::throw_assert(CDL_FILE_NAME, 250, "mode must not be disabled when starting an age cleanup");
  }
  if (_stop_requested) return;
  if (_log != nullptr) {
    _log->info("filesystem age cleanup has started; removing %s older than %llu sec", cleanup_mode_label(mode),
               static_cast<unsigned long long>(cutoff));
  }
  if (mode == age_cleanup_state::metadata || mode == age_cleanup_state::both) {
    start_metadata_cleanup(0UL, cutoff * 1000000000UL, false);
  }
  if (mode == age_cleanup_state::files || mode == age_cleanup_state::both) {
    _storage->delete_by_time(0, cutoff, false, fs_entry::deletion_by::cleanup);
  }
}

void fs_cleaner::start_metadata_cleanup(cdl::nullable<unsigned long> start, cdl::nullable<unsigned long> end,
                                        bool automatic) {
  if (automatic && !_metadata_cleanup_enabled) return;
  if (start.is_null() || end.is_null()) return;
  const cdl::nullable<std::string> error = _metadata_cleanup_callback(*start, *end);
  if (!error.is_null() && _log != nullptr) {
    _log->error("could not cleanup all or some metadata in range %llu-%llu: %s",
                static_cast<unsigned long long>(*start), static_cast<unsigned long long>(*end), *error);
  }
}

void fs_cleaner::switch_metadata_cleanup(bool enabled) {
  _metadata_cleanup_enabled = enabled;
  if (_log != nullptr) _log->info("automatic capture metadata cleanup is now %s", enabled ? "enabled" : "disabled");
}

}  // namespace csl
