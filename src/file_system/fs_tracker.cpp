#include <csl/fs_tracker.hpp>

#include <cdl/exception.hpp>
#include <cdl/impl/task_mapping.hpp>

#include <exception>
#include <limits>

namespace csl {

namespace {
constexpr unsigned long NO_LIMIT = std::numeric_limits<unsigned long>::max();
// At-start tasks held back during the start-up scan before they go to the
// channel in one burst.
constexpr size_t HELD_TASKS = 256;
}  // namespace

fs_tracker::fs_tracker(cdl::task_listener_group& group, std::shared_ptr<fs_cache> cache, const std::string& root_path,
                       std::set<std::string> paths, bool monitor, filter_type filter,
                       unsigned long empty_message_size, cdl::log* log)
    : _root_path(root_path),
      _paths(std::move(paths)),
      _event_count(16),
      _read_buffer_size(_event_count * 1024 + 16384),
      _group(group),
      _reader(filter, EMPTY_FILE_SIZE_LIMIT, "user.pcap_hash", "user.pcap_start_ts", "user.pcap_end_ts",
              "user.pcap_creation_ts", fs_reader::entry_callback(), nullptr),
      _cache(std::move(cache)),
      _running(false),
      _inotify_fd(0),
      _filter(std::move(filter)),
      _empty_message_size(empty_message_size),
      _log(log) {
  if (_group.task_channels().size() != 1) {
    cdl::throw_assert(CDL_FILE_NAME, __LINE__, "Must be built on a single-threaded task_listener_group.");
  }
  for (const std::string& path : _paths) {
    if (path.compare(0, _root_path.size(), _root_path) != 0) {
      cdl::throw_assert(CDL_FILE_NAME, __LINE__, "Root path doesn't match on %s.", path.c_str());
    }
  }
  // The at-start tasks of the scan go to the channel in bursts, in the order
  // they were made. Pushed one by one, each would wake the channel's worker
  // on its own: a futex hand-off per capture without attributes, which on a
  // directory of such files cost more system time than the scan's stat and
  // getxattr calls.
  std::vector<cdl::task_ptr<cdl::task>> held;
  held.reserve(HELD_TASKS);
  _held_tasks = &held;
  try {
    for (const std::string& path : _paths) {
      _reader.collect_files(
          path, *_cache, [this](fs_entry& e) { handle_fs_entry_missing_xattr_on_init(e); },
          [this](fs_entry& e) { handle_fs_entry_has_xattr_but_empty_on_init(e); });
    }
  } catch (...) {
    push_held();
    _held_tasks = nullptr;
    throw;
  }
  push_held();
  _held_tasks = nullptr;
  if (!monitor) return;

  cdl::task_channel& channel = _group.task_channel(0);
  channel.register_task_handler<fs_entry_created>(&fs_tracker::handle, this, cdl::task_handler_order::normal,
                                                  NO_LIMIT);
  channel.register_task_handler<fs_entry_updated>(&fs_tracker::handle, this, cdl::task_handler_order::normal,
                                                  NO_LIMIT);
  channel.register_task_handler<fs_entry_deleted>(&fs_tracker::handle, this, cdl::task_handler_order::normal,
                                                  NO_LIMIT);
  try {
    start_monitoring();
  } catch (const std::exception& e) {
    if (_log != nullptr) _log->critical("fs_tracker(): Failed to start monitoring: %s.", e.what());
  }
}

fs_tracker::~fs_tracker() {
  try {
    stop_monitoring();
  } catch (const std::exception& e) {
    if (_log != nullptr) _log->critical("~fs_tracker: Exception: %s.", e.what());
  }
}

void fs_tracker::push(cdl::task_ptr<cdl::task>&& task) {
  if (_held_tasks != nullptr) {
    _held_tasks->push_back(std::move(task));
    if (_held_tasks->size() >= HELD_TASKS) push_held();
    return;
  }
  _group.task_channel(0).push(std::move(task), NO_LIMIT, false);
}

void fs_tracker::push_held() {
  cdl::task_channel& channel = _group.task_channel(0);
  for (auto& task : *_held_tasks) channel.push(std::move(task), NO_LIMIT, false);
  _held_tasks->clear();
}

void fs_tracker::handle_fs_entry_missing_xattr_on_init(fs_entry& entry) {
  if (_log != nullptr) {
    _log->debug("Loaded %sfs_entry without xattr's: %s", entry.file_size > _empty_message_size ? "" : "empty ",
                entry.to_str());
  }
  push(cdl::memory_pool<fs_entry_missing_xattr_at_init>::make(entry));
}

void fs_tracker::handle_fs_entry_has_xattr_but_empty_on_init(fs_entry& entry) {
  if (_log != nullptr) _log->debug("Loaded empty fs_entry with xattr's: %s", entry.to_str());
  push(cdl::memory_pool<fs_entry_has_xattr_but_empty_at_init>::make(entry));
}

void fs_tracker::handle(cdl::task_ptr<fs_entry_created>& task) {
  fs_entry& entry = task->entry;
  if (!_reader.load_attributes(entry)) {
    if (_log != nullptr) _log->error("Failed to read the attributes of %s.", entry.path);
    return;
  }
  if (_cache->insert(std::make_shared<fs_entry>(entry))) {
    if (_log != nullptr) _log->debug("Created fs_entry: %s", entry.to_str());
  } else {
    if (_log != nullptr) _log->error("Failed to insert %s into the cache. The path already existed.", entry.path);
  }
}

void fs_tracker::handle(cdl::task_ptr<fs_entry_updated>& task) {
  fs_entry& entry = task->entry;
  if (!_reader.load_attributes(entry)) {
    if (_log != nullptr) _log->error("Failed to read the attributes of %s.", entry.path);
    return;
  }
  if (!_reader.load_extended_attributes(entry)) {
    if (_log != nullptr) _log->error("Failed to read the extended attributes of %s.", entry.path);
    return;
  }
  if (_cache->update(entry)) {
    if (_log != nullptr) _log->debug("Updated fs_entry: %s", entry.to_str());
  } else {
    if (_log != nullptr) _log->error("Failed to update %s in the cache. The path didn't exist.", entry.path);
  }
}

void fs_tracker::handle(cdl::task_ptr<fs_entry_deleted>& task) {
  fs_entry& entry = task->entry;
  if (_cache->delete_(entry)) {
    if (_log != nullptr) _log->debug("Erased fs_entry: %s", entry.to_str());
  } else {
    if (_log != nullptr) _log->error("Failed to delete %s from the cache. The path didn't exist.", entry.path);
  }
}

}  // namespace csl
