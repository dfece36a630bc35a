// A capture storage wired the way a host wires it, on a real directory: a
// catalogue, a tracker on a one-worker listener group (scanning the directory
// at construction, then watching it), the storage over both, and the runtime
// whose start and stop callbacks run the storage's delete thread. Also a log
// whose lines a test reads back, and helpers to lay out capture files.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/task_system.hpp>

#include "support/stdout_capture.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <sys/stat.h>

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace faitra_test {

// Creates an empty file for each name in `dir`; returns their full paths.
inline std::vector<std::string> make_captures(const std::string& dir, const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const auto& name : names) {
    paths.push_back(dir + "/" + name);
    write_and_close(paths.back(), 0);
  }
  return paths;
}

// Whether `path` exists on disk (any file type).
inline bool exists_on_disk(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// A debug-level log named "storage" whose lines the test reads back. Create
// it before the fixture: the delete thread logs until the runtime stops.
class stdout_log : public stdout_log_capture {
 public:
  stdout_log() : stdout_log_capture("storage") {}
  // The line as this log writes it: "os - storage - <body>".
  static std::string line(const std::string& body) { return "os - storage - " + body; }
};

class storage_fixture {
 public:
  // `dir` is the root and the only watched path. The tracker scans it here
  // and watches it when `monitor` is true; the storage logs through
  // `storage_log` (may be null). The delete thread runs only after start().
  explicit storage_fixture(const std::string& dir, cdl::log* storage_log = nullptr, bool monitor = true)
      : _workers(std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{1, "Storage fixture tracker"})),
        _listeners(std::make_unique<cdl::task_listener_group>(*_workers)),
        _cache(std::make_shared<csl::fs_cache>()),
        _tracker(std::make_shared<csl::fs_tracker>(*_listeners, _cache, dir, std::set<std::string>{dir}, monitor,
                                                   is_capture_name, csl::fs_tracker::EMPTY_FILE_SIZE_LIMIT, nullptr)),
        _storage(std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, storage_log)) {}
  // Stops the delete thread and the monitor, and destroys the groups so no
  // handler runs any more, before the storage, tracker and catalogue go.
  ~storage_fixture() {
    _runtime.stop();
    _tracker->stop_monitoring();
    _listeners.reset();
    _workers.reset();
    _storage.reset();
    _tracker.reset();
    _cache.reset();
  }
  storage_fixture(const storage_fixture&) = delete;
  storage_fixture& operator=(const storage_fixture&) = delete;

  // The runtime's start and stop (each runs once): start and join the
  // delete thread.
  void start() { _runtime.start(); }
  void stop() { _runtime.stop(); }

  csl::fs_cache& cache() { return *_cache; }
  csl::fs_storage& storage() { return *_storage; }

  // Sets the creation and start timestamps of a catalogued record through
  // the catalogue's update; fails the test if `path` is not catalogued.
  void set_times(const std::string& path, unsigned long creation_ts, unsigned long start_ts) {
    csl::fs_entry record;
    ASSERT_TRUE(_cache->by_path(record, path)) << path << " is not catalogued";
    record.creation_ts = creation_ts;
    record.start_ts = start_ts;
    ASSERT_TRUE(_cache->update(record)) << path;
  }
  std::optional<csl::fs_entry> find(const std::string& path) const {
    csl::fs_entry record;
    if (!_cache->by_path(record, path)) return std::nullopt;
    return record;
  }
  // The marker of the record of `path` (none when absent).
  csl::fs_entry::deletion_by marker(const std::string& path) const {
    const auto record = find(path);
    return record ? record->deletion.load() : csl::fs_entry::deletion_by::none;
  }
  // Waits (bounded) until the tracker has erased the record of `path`.
  bool wait_gone(const std::string& path) const {
    return wait_until([&] { return !_cache->path_exists(path); });
  }

 private:
  cdl::runtime _runtime;
  cdl::core _core;
  std::unique_ptr<cdl::worker_group> _workers;
  std::unique_ptr<cdl::task_listener_group> _listeners;
  std::shared_ptr<csl::fs_cache> _cache;
  std::shared_ptr<csl::fs_tracker> _tracker;
  std::shared_ptr<csl::fs_storage> _storage;
};

}  // namespace faitra_test
