#include <faitra/host/catalogue_export.hpp>

#include <faitra/host/catalogue_schema.hpp>

#include <algorithm>
#include <ctime>

namespace faitra_host {

namespace {

using clock = change_queue::clock;

constexpr size_t MAX_SENSOR_NAME = 63;

double seconds_between(clock::time_point from, clock::time_point to) {
  return std::max(0.0, std::chrono::duration<double>(to - from).count());
}

}  // namespace

catalogue_export::catalogue_export(export_options options, cdl::task_listener_group& group, cdl::log* log)
    : _options(std::move(options)), _log(log), _queue(_options.queue_capacity) {
  const std::string refused = pg_connection::check_conninfo(_options.conninfo);
  if (!refused.empty()) throw std::invalid_argument(refused);
  const std::string& name = _options.who.sensor;
  if (name.empty() || name.size() > MAX_SENSOR_NAME ||
      name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-") != std::string::npos) {
    throw std::invalid_argument("a sensor name is 1 to 63 letters, digits, '.', '_' or '-'");
  }
  _status.sensor = _options.who.sensor;
  _status.queue_capacity = _queue.capacity();
  cdl::task_channel& channel = group.task_channel(0);
  const auto last = cdl::task_handler_order::last;
  channel.register_task_handler(&catalogue_export::on_created, this, last, csl::FS_EVENT_VERSION);
  channel.register_task_handler(&catalogue_export::on_updated, this, last, csl::FS_EVENT_VERSION);
  channel.register_task_handler(&catalogue_export::on_deleted, this, last, csl::FS_EVENT_VERSION);
  channel.register_task_handler(&catalogue_export::on_reconciled, this, last, static_cast<unsigned long>(-1));
  channel.register_task_handler(&catalogue_export::on_derived, this, last, static_cast<unsigned long>(-1));
}

catalogue_export::~catalogue_export() { stop(std::chrono::milliseconds(0)); }

void catalogue_export::on_created(cdl::task_ptr<csl::fs_entry_created>& task) { _queue.note(task->entry.path); }

void catalogue_export::on_updated(cdl::task_ptr<csl::fs_entry_updated>& task) { _queue.note(task->entry.path); }

void catalogue_export::on_deleted(cdl::task_ptr<csl::fs_entry_deleted>& task) { _queue.note(task->entry.path); }

void catalogue_export::on_reconciled(cdl::task_ptr<reconcile_task>& task) {
  for (const std::string& path : task->paths) _queue.note(path);
}

void catalogue_export::on_derived(cdl::task_ptr<derived_task>& task) { _queue.note(task->path); }

void catalogue_export::attach(std::shared_ptr<csl::fs_cache> cache) { _cache = std::move(cache); }

void catalogue_export::start() {
  if (_thread.joinable() || stopping() || !_cache) return;
  _thread = std::thread([this] { thread_body(); });
}

void catalogue_export::stop(std::chrono::milliseconds flush_for) {
  {
    std::lock_guard<std::mutex> lock(_wait_mutex);
    if (_stopping.exchange(true)) return;
    _flush_for = flush_for;
  }
  _wait_cv.notify_all();
  _queue.wake();
  if (_thread.joinable()) _thread.join();
  _db.reset();
}

export_status catalogue_export::status() const {
  export_status s;
  std::optional<clock::time_point> in_flight;
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    s = _status;
    in_flight = _in_flight;
  }
  s.queue_depth = _queue.depth();
  s.resync_needed = _queue.resync_needed();
  s.overflows = _queue.overflows();
  std::optional<clock::time_point> oldest = _queue.oldest();
  if (in_flight) oldest = oldest ? std::min(*oldest, *in_flight) : *in_flight;
  s.lag_seconds = oldest ? seconds_between(*oldest, clock::now()) : 0.0;
  return s;
}

void catalogue_export::thread_body() {
  std::chrono::milliseconds pause = _options.retry_min;
  while (!stopping()) {
    if (!_db) {
      try {
        connect();
        pause = _options.retry_min;
      } catch (const std::exception& e) {
        fail("connecting to the database", e);
        std::unique_lock<std::mutex> lock(_wait_mutex);
        _wait_cv.wait_for(lock, pause, [this] { return stopping(); });
        pause = std::min(pause * 2, _options.retry_max);
        continue;
      }
    }
    try {
      if (const auto since = _queue.take_resync()) {
        resync(*since);
        continue;
      }
      const change_queue::batch batch =
          _queue.wait_for_batch(_options.batch_max, _options.batch_interval, clock::now() + std::chrono::seconds(1));
      if (!batch.paths.empty()) send(batch);
    } catch (const std::exception& e) {
      fail("writing to the database", e);
    }
  }
  flush_before_exit();
}

void catalogue_export::connect() {
  auto db = std::make_unique<pg_connection>(_options.conninfo, _options.password_file, "faitra export");
  ensure_schema(*db);
  const std::string server = db->describe();
  _db = std::move(db);
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    _status.connected = true;
    _status.server = server;
  }
  if (_log != nullptr) _log->info("Catalogue export: connected to %s as sensor %s", server, _options.who.sensor);
  _queue.need_resync();  // on start and after every reconnect
}

void catalogue_export::resync(clock::time_point since) {
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    _in_flight = since;
  }
  const clock::time_point begun = clock::now();
  sync_summary summary;
  try {
    summary = resync_sensor(*_db, _options.who, *_cache, [this] { return stopping(); });
  } catch (...) {
    _queue.need_resync(since);
    throw;
  }
  const double took = seconds_between(begun, clock::now());
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    _in_flight.reset();
    _status.last_resync = static_cast<long>(std::time(nullptr));
    _status.last_resync_seconds = took;
    _status.last_resync_summary = summary;
    ++_status.resyncs;
  }
  if (_log != nullptr) {
    _log->info("Catalogue export: resync of %lu captures in %.2f s (%lu inserted, %lu updated, %lu deleted)",
               summary.catalogued, took, summary.inserted, summary.updated, summary.deleted);
  }
}

void catalogue_export::send(const change_queue::batch& batch) {
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    _in_flight = batch.oldest;
  }
  std::vector<csl::fs_entry> present;
  std::vector<std::string> gone;
  for (const std::string& path : batch.paths) {
    csl::fs_entry record;
    if (_cache->by_path(record, path)) {
      present.push_back(std::move(record));
    } else {
      gone.push_back(path);
    }
  }
  try {
    apply_changes(*_db, _options.who, present, gone);
  } catch (...) {
    _queue.need_resync(batch.oldest);
    throw;
  }
  std::lock_guard<std::mutex> lock(_status_mutex);
  _in_flight.reset();
  _status.last_batch_lag_seconds = seconds_between(batch.oldest, clock::now());
  ++_status.batches;
  _status.rows_upserted += present.size();
  _status.rows_deleted += gone.size();
}

void catalogue_export::flush_before_exit() {
  if (!_db || _queue.resync_needed()) return;
  const clock::time_point until = clock::now() + _flush_for;
  try {
    while (_queue.depth() > 0 && clock::now() < until) {
      send(_queue.wait_for_batch(_options.batch_max, clock::duration::zero(), until));
    }
  } catch (const std::exception& e) {
    fail("writing the last changes", e);
  }
}

void catalogue_export::fail(const std::string& what, const std::exception& e) {
  const bool lost = _db != nullptr;
  _db.reset();
  bool repeated = false;
  {
    std::lock_guard<std::mutex> lock(_status_mutex);
    _in_flight.reset();
    _status.connected = false;
    ++_status.failures;
    repeated = _status.last_error == e.what();
    _status.last_error = e.what();
  }
  if (_log != nullptr && !stopping() && (lost || !repeated)) {
    _log->error("Catalogue export: failed %s: %s; a resync follows the reconnection", what, e.what());
  }
}

}  // namespace faitra_host
