#include <faitra/host/metadata_deriver.hpp>

#include <faitra/host/reconcile.hpp>
#include <faitra/host/scan_tasks.hpp>

#include <sys/stat.h>

#include <cerrno>

namespace faitra_host {

derived_task::~derived_task() = default;

const std::string& derived_task::name_static() {
  static const std::string name("faitra_derived_task");
  return name;
}

const cdl::task_type& derived_task::type() const { return cdl::task_type::identify<derived_task>(); }

const std::string& derived_task::name() const { return name_static(); }

metadata_deriver::metadata_deriver(cdl::task_listener_group& group, bool write_attributes, cdl::log* log)
    : _group(group), _write_attributes(write_attributes), _log(log) {
  cdl::task_channel& channel = _group.task_channel(0);
  channel.register_task_handler_as(missing_attributes_task_type(), &metadata_deriver::handle_missing, this,
                                   cdl::task_handler_order::last, csl::FS_EVENT_VERSION);
  channel.register_task_handler_as(empty_attributes_task_type(), &metadata_deriver::handle_empty, this,
                                   cdl::task_handler_order::last, csl::FS_EVENT_VERSION);
  channel.register_task_handler(&metadata_deriver::handle, this, cdl::task_handler_order::normal,
                                static_cast<unsigned long>(-1));
}

metadata_deriver::~metadata_deriver() { stop(); }

void metadata_deriver::attach(std::shared_ptr<csl::fs_cache> cache) {
  std::lock_guard<std::mutex> lock(_mutex);
  _cache = std::move(cache);
  if (!_thread.joinable() && !_stopping) _thread = std::thread([this] { thread_body(); });
}

void metadata_deriver::watch() {
  cdl::task_channel& channel = _group.task_channel(0);
  channel.register_task_handler(&metadata_deriver::handle_changed, this, cdl::task_handler_order::last,
                                csl::FS_EVENT_VERSION);
  channel.register_task_handler(&metadata_deriver::handle_updated, this, cdl::task_handler_order::last,
                                csl::FS_EVENT_VERSION);
}

void metadata_deriver::stop() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _stopping = true;
    _queue.clear();
    _queued.clear();
  }
  _cancel.store(true);
  _cv.notify_all();
  if (_thread.joinable()) _thread.join();
}

unsigned long metadata_deriver::queued() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _queue.size();
}

void metadata_deriver::submit(const std::string& path) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_stopping || _queued.count(path) != 0) return;
    if (_queue.size() >= MAX_QUEUED) {
      _counters.dropped.fetch_add(1);
      if (!_said_full && _log != nullptr) {
        _log->write(cdl::log_priority::warning, "The derivation queue is full (%lu captures); later ones wait for the next start or reconcile",
                      static_cast<unsigned long>(MAX_QUEUED));
      }
      _said_full = true;
      return;
    }
    _queue.push_back(path);
    _queued.insert(path);
  }
  _cv.notify_all();
}

void metadata_deriver::overlay(csl::fs_entry& record) const {
  if (!record.key.is_null() && !record.start_ts.is_null() && !record.end_ts.is_null()) return;
  std::lock_guard<std::mutex> lock(_mutex);
  const auto found = _in_memory.find(record.path);
  if (found == _in_memory.end() || found->second.first != record.file_size) return;
  attribute_values current = read_capture_attributes(record.path);
  current.fill_from(found->second.second);
  current.apply_to(record);
}

void metadata_deriver::handle_missing(cdl::task_ptr<csl::fs_entry_missing_xattr_at_init>& task) {
  submit(task->entry.path);
}

void metadata_deriver::handle_empty(cdl::task_ptr<csl::fs_entry_has_xattr_but_empty_at_init>& task) {
  const csl::fs_entry& e = task->entry;
  if (e.start_ts.is_null() || e.end_ts.is_null()) submit(e.path);
}

void metadata_deriver::handle_changed(cdl::task_ptr<csl::fs_entry_created>& task) { reconsider(task->entry.path); }

void metadata_deriver::handle_updated(cdl::task_ptr<csl::fs_entry_updated>& task) { reconsider(task->entry.path); }

void metadata_deriver::reconsider(const std::string& path) {
  if (!_cache) return;
  csl::fs_entry record;
  if (!_cache->by_path(record, path) || !record.key.is_null()) return;
  // Renamed in, or copied with its attributes: the tracker's created
  // handler does not read them.
  const attribute_values on_file = read_capture_attributes(path);
  if (on_file.key) {
    on_file.apply_to(record);
    if (_cache->update(record)) _counters.attributes_read.fetch_add(1);
    if (on_file.start_ns && on_file.end_ns) return;
  }
  submit(path);
}

void metadata_deriver::thread_body() {
  std::unique_lock<std::mutex> lock(_mutex);
  for (;;) {
    _cv.wait(lock, [this] { return _stopping || !_queue.empty(); });
    if (_stopping) return;
    const std::string path = std::move(_queue.front());
    _queue.pop_front();
    lock.unlock();
    try {
      derive(path);
    } catch (const std::exception& e) {
      _counters.failures.fetch_add(1);
      if (_log != nullptr) _log->error("Deriving the metadata of %s failed: %s", path, e.what());
    }
    lock.lock();
    _queued.erase(path);
  }
}

void metadata_deriver::derive(const std::string& path) {
  const attribute_values before = read_capture_attributes(path);
  if (before.complete() && before.malformed.empty()) {
    // A writer, or the derivation of another name of the same file (a hard
    // link, a symbolic link's target), got there first: the record takes
    // the file's values, as a rename-in's would.
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return;
    cdl::task_ptr<cdl::task> task(cdl::memory_pool<derived_task>::make(
        path, before, static_cast<unsigned long>(status.st_size), true));
    _group.task_channel(0).push(std::move(task), static_cast<unsigned long>(-1), false);
    return;
  }

  struct stat seen {};
  if (::stat(path.c_str(), &seen) != 0) return;
  const std::pair<uint64_t, uint64_t> version{static_cast<uint64_t>(seen.st_size),
                                              static_cast<uint64_t>(seen.st_mtim.tv_sec) * 1000000000ULL +
                                                  static_cast<uint64_t>(seen.st_mtim.tv_nsec)};
  const auto known = _unusable.find(path);
  if (known != _unusable.end() && known->second == version) return;  // unchanged since it was found unusable

  summary_options options;
  options.cancel = &_cancel;
  const capture_summary summary = summarise_capture(path, options);
  _counters.bytes_read.fetch_add(summary.bytes);
  if (summary.cancelled) return;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return;  // deleted while being read
  if (!summary.usable()) {
    if (summary.status == capture_status::read_failed && summary.error_number == ENOENT) return;
    _counters.failures.fetch_add(1);
    if (_unusable.size() >= MAX_QUEUED) _unusable.clear();  // bounded; forgetting only costs a second read
    _unusable[path] = version;
    if (_log != nullptr) {
      _log->write(cdl::log_priority::warning, "%s: cannot derive its metadata (%s%s%s); it stays catalogued without times", path,
                    to_string(summary.status), summary.message.empty() ? "" : ": ", summary.message);
    }
    return;
  }
  if (static_cast<uint64_t>(status.st_size) != summary.bytes) return;  // written to since; its close comes next
  if (summary.status != capture_status::end && _log != nullptr) {
    _log->info("%s: %s; its times cover the packets before it", path, summary.message);
  }

  const attribute_values derived = derived_attributes(summary);
  bool in_memory = !_write_attributes;
  if (_write_attributes) {
    std::string error;
    switch (write_capture_attributes(path, derived, error)) {
      case write_outcome::written:
        break;
      case write_outcome::vanished:
        return;
      case write_outcome::unsupported:
        in_memory = true;
        if (!_said_unsupported && _log != nullptr) {
          _log->write(cdl::log_priority::warning, "The file system of %s refuses user.* attributes (%s); derived metadata is kept in memory "
                        "and derived again at the next start",
                        path, error);
        }
        _said_unsupported = true;
        break;
      case write_outcome::failed:
        if (_log != nullptr) _log->error("Cannot set the attributes of %s: %s", path, error);
        in_memory = true;
        break;
    }
  }
  // The file's own valid values win; the derived ones fill the rest.
  attribute_values values = read_capture_attributes(path);
  values.fill_from(derived);
  // A malformed value stays on the file: what replaces it lives here.
  if (!values.malformed.empty()) in_memory = true;
  if (in_memory) {
    std::lock_guard<std::mutex> lock(_mutex);
    _in_memory[path] = {static_cast<unsigned long>(status.st_size), values};
    _counters.memory_only.fetch_add(1);
  }
  cdl::task_ptr<cdl::task> task(
      cdl::memory_pool<derived_task>::make(path, std::move(values), static_cast<unsigned long>(status.st_size)));
  _group.task_channel(0).push(std::move(task), static_cast<unsigned long>(-1), false);
}

void metadata_deriver::handle(cdl::task_ptr<derived_task>& task) {
  if (!_cache) return;
  csl::fs_entry record;
  if (!_cache->by_path(record, task->path)) return;  // deleted meanwhile
  // A writer may have set attributes since the file was read; on this
  // channel its close has been applied already, and its values win.
  attribute_values values = read_capture_attributes(task->path);
  values.fill_from(task->values);
  csl::fs_entry updated(record);
  values.apply_to(updated);
  updated.file_size = task->size;
  updated.deletion.store(record.deletion.load());
  if (task->read && same_metadata(updated, record)) return;  // nothing new
  if (_cache->update(updated)) {
    if (task->read) {
      _counters.attributes_read.fetch_add(1);
      return;
    }
    _counters.derived.fetch_add(1);
    if (_log != nullptr) {
      _log->debug("Derived %s: key %s, packets %lu-%lu", task->path, *values.key,
                  static_cast<unsigned long>(*values.start_ns), static_cast<unsigned long>(*values.end_ns));
    }
  }
}

}  // namespace faitra_host
