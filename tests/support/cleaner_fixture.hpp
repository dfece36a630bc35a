// Running a capture cleaner in a test: a capture directory (a small tmpfs
// mounted for the test, or a plain temporary directory), the tracker watching
// it, the storage over both, and a cleaner built on demand, torn down in the
// order the cleaner requires. Also the records that a test binary's own
// replacements of syslog() and sleep() fill.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_cleaner.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/nullable.hpp>
#include <cdl/task_system.hpp>

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <syslog.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace faitra_test {

struct log_line {
  int priority;  // syslog priority, facility removed
  std::string text;
};

// Lines handed to syslog(): a test binary defining syslog() forwards each
// call to record().
class syslog_record {
 public:
  void record(int priority, const char* format, va_list args) {
    char buffer[8192];
    std::vsnprintf(buffer, sizeof buffer, format, args);
    const std::lock_guard<std::mutex> lock(_mutex);
    _lines.push_back({priority & LOG_PRIMASK, buffer});
  }
  std::vector<log_line> lines() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _lines;
  }
  // Lines whose text contains `fragment`.
  std::vector<log_line> matching(const std::string& fragment) const {
    std::vector<log_line> out;
    for (auto& line : lines()) {
      if (line.text.find(fragment) != std::string::npos) out.push_back(line);
    }
    return out;
  }
  bool contains(const std::string& fragment) const { return !matching(fragment).empty(); }
  bool wait_for(const std::string& fragment) const {
    return wait_until([&] { return contains(fragment); });
  }
  void clear() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _lines.clear();
  }

 private:
  mutable std::mutex _mutex;
  std::vector<log_line> _lines;
};
inline syslog_record& syslog_lines() {
  static syslog_record record;
  return record;
}

// Arguments of the calls to sleep(): a test binary defining sleep() forwards
// each call to record() and returns at once.
class sleep_record {
 public:
  void record(unsigned int seconds) {
    const std::lock_guard<std::mutex> lock(_mutex);
    _calls.push_back(seconds);
  }
  std::vector<unsigned int> calls() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _calls;
  }
  size_t count() const { return calls().size(); }
  void clear() {
    const std::lock_guard<std::mutex> lock(_mutex);
    _calls.clear();
  }

 private:
  mutable std::mutex _mutex;
  std::vector<unsigned int> _calls;
};
inline sleep_record& sleep_calls() {
  static sleep_record record;
  return record;
}

// Removals seen by a test binary's own unlink() (or remove()), which calls
// record() before forwarding: each path, whether it was in the watched
// catalogue at that moment and with which marker. Only while watching. The
// watch ends with the object returned by watch(), before the catalogue goes.
struct removal {
  std::string path;
  bool catalogued;
  csl::fs_entry::deletion_by marked;
};
class removal_record {
 public:
  void record(const char* path) {
    csl::fs_cache* cache = _watched.load();
    if (cache == nullptr) return;
    csl::fs_entry entry;
    const bool catalogued = cache->by_path(entry, path);
    const std::lock_guard<std::mutex> lock(_mutex);
    _removals.push_back({path, catalogued, entry.deletion.load()});
  }
  [[nodiscard]] auto watch(csl::fs_cache& cache) {
    {
      const std::lock_guard<std::mutex> lock(_mutex);
      _removals.clear();
    }
    _watched = &cache;
    auto stop = [this](removal_record*) { _watched = nullptr; };
    return std::unique_ptr<removal_record, decltype(stop)>(this, stop);
  }
  std::vector<removal> removals() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _removals;
  }

 private:
  std::atomic<csl::fs_cache*> _watched{nullptr};
  mutable std::mutex _mutex;
  std::vector<removal> _removals;
};
inline removal_record& removals() {
  static removal_record record;
  return record;
}

// A capture as the capture writer makes it. Absent timestamps are not set.
struct capture {
  std::string name;
  unsigned long size;
  unsigned long creation_ts;              // seconds
  std::optional<unsigned long> start_ts;  // nanoseconds
  std::optional<unsigned long> end_ts;
};

// Create, write, close; reopen, set the hash ("hash-<name>") and the
// timestamps, close. Throws on a failed system call.
inline void write_capture(const std::string& path, const capture& c) {
  write_and_close(path, c.size);
  std::vector<std::pair<const char*, std::string>> values = {{"user.pcap_hash", "hash-" + c.name}};
  if (c.start_ts) values.emplace_back("user.pcap_start_ts", std::to_string(*c.start_ts));
  if (c.end_ts) values.emplace_back("user.pcap_end_ts", std::to_string(*c.end_ts));
  values.emplace_back("user.pcap_creation_ts", std::to_string(c.creation_ts));
  set_attributes(path, values);
}

// Used and total bytes as the storage computes them, from the real statvfs.
struct disk_figures {
  unsigned long used;
  unsigned long total;
};

struct cleaner_options {
  bool enabled = true;
  float trigger = 0.5f;
  float stop = 0.3f;
  bool verbose = false;
  // Replaces the recording refresh function (may be an empty function).
  std::optional<csl::fs_cleaner::reset_disk_cache_type> reset_disk_cache{};
};

class cleaner_env {
 public:
  using range = std::pair<unsigned long, unsigned long>;

  // A tmpfs of `tmpfs_bytes` (check ready()), or with 0 a plain temporary
  // directory. `before_scan`, when set, fills the directory before the
  // tracker's start-up scan (so that many captures can be catalogued without
  // flooding the inotify queue). The tracker watches it from the start; the
  // storage's delete thread runs only after start_runtime().
  explicit cleaner_env(unsigned long tmpfs_bytes, const std::function<void(const std::string& dir)>& before_scan = {}) {
    if (tmpfs_bytes != 0) {
      _mount.emplace(tmpfs_bytes);
      if (!_mount->mounted()) {
        _reason = _mount->reason();
        return;
      }
      _dir = _mount->path();
    } else {
      _plain.emplace("faitra-cleaner");
      _dir = _plain->path();
    }
    if (before_scan) before_scan(_dir);
    _cache = std::make_shared<csl::fs_cache>();
    _tracker_workers = std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{1, "Tracker"});
    _tracker_listeners = std::make_unique<cdl::task_listener_group>(*_tracker_workers);
    _tracker = std::make_shared<csl::fs_tracker>(*_tracker_listeners, _cache, _dir, std::set<std::string>{_dir},
                                                 true, is_capture_name, 236, &_log);
    _storage = std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, &_log);
  }
  ~cleaner_env() { shutdown(); }
  cleaner_env(const cleaner_env&) = delete;
  cleaner_env& operator=(const cleaner_env&) = delete;

  bool ready() const { return _tracker != nullptr; }
  const std::string& reason() const { return _reason; }
  const std::string& dir() const { return _dir; }
  std::string path(const std::string& name) const { return _dir + "/" + name; }

  csl::fs_cleaner& build_cleaner(const cleaner_options& options) {
    auto metadata = [this](unsigned long start, unsigned long end) -> cdl::nullable<std::string> {
      {
        const std::lock_guard<std::mutex> lock(_metadata_mutex);
        _metadata_calls.emplace_back(start, end);
      }
      return metadata_hook ? metadata_hook(start, end) : cdl::nullable<std::string>();
    };
    csl::fs_cleaner::reset_disk_cache_type reset = [this] {
      ++_reset_calls;
      return true;
    };
    if (options.reset_disk_cache) reset = *options.reset_disk_cache;
    _cleaner = std::make_unique<csl::fs_cleaner>(_core, *_tracker_listeners, _storage, metadata, options.enabled,
                                                 reset, options.trigger, options.stop, options.verbose, &_log);
    return *_cleaner;
  }
  void start_runtime() { _runtime.start(); }
  // Stops monitoring, then the tracker's groups, then the cleaner, the
  // storage's thread, the storage, the tracker and the cache. Idempotent.
  void shutdown() {
    if (_tracker) _tracker->stop_monitoring();
    _tracker_listeners.reset();
    _tracker_workers.reset();
    _cleaner.reset();
    _runtime.stop();
    _storage.reset();
    _tracker.reset();
    _cache.reset();
  }

  csl::fs_cleaner& cleaner() { return *_cleaner; }
  csl::fs_storage& storage() { return *_storage; }
  csl::fs_cache& cache() { return *_cache; }
  cdl::task_channel& tracker_channel() { return _tracker_listeners->task_channel(0); }

  // Writes `c` and waits until the catalogue holds it with its attributes.
  bool add_capture(const capture& c) {
    write_capture(path(c.name), c);
    return wait_until([&] {
      const auto r = record(c.name);
      return r && r->has_extended_attributes() && r->creation_ts == c.creation_ts;
    });
  }
  bool on_disk(const std::string& name) const {
    struct stat status {};
    return ::stat(path(name).c_str(), &status) == 0;
  }
  // Waits until the file is gone from disk and from the catalogue.
  bool wait_gone(const std::string& name) const {
    return wait_until([&] { return !on_disk(name) && !_cache->path_exists(path(name)); });
  }
  std::optional<csl::fs_entry> record(const std::string& name) const {
    csl::fs_entry out;
    if (!_cache->by_path(out, path(name))) return std::nullopt;
    return out;
  }
  disk_figures figures() const {
    struct statvfs s {};
    check_syscall(::statvfs(_dir.c_str(), &s) == 0, "statvfs", _dir);
    return {s.f_bsize * (s.f_blocks - s.f_bfree), s.f_bsize * s.f_blocks};
  }

  // Calls of the metadata callback, in order. `metadata_hook`, when set, is
  // called after recording and gives the callback's result.
  std::vector<range> metadata_calls() const {
    const std::lock_guard<std::mutex> lock(_metadata_mutex);
    return _metadata_calls;
  }
  std::function<cdl::nullable<std::string>(unsigned long, unsigned long)> metadata_hook;
  // Calls of the default refresh function, which succeeds.
  unsigned long reset_calls() const { return _reset_calls.load(); }

 private:
  std::optional<tmpfs_mount> _mount;
  std::optional<temp_dir> _plain;
  std::string _dir;
  std::string _reason;
  cdl::log _log{cdl::log_type::os, cdl::log_facility::local0, "cleaner", cdl::log_priority::debug, false};
  cdl::core _core;
  cdl::runtime _runtime;
  mutable std::mutex _metadata_mutex;
  std::vector<range> _metadata_calls;
  std::atomic<unsigned long> _reset_calls{0};
  std::shared_ptr<csl::fs_cache> _cache;
  std::unique_ptr<cdl::worker_group> _tracker_workers;
  std::unique_ptr<cdl::task_listener_group> _tracker_listeners;
  std::shared_ptr<csl::fs_tracker> _tracker;
  std::shared_ptr<csl::fs_storage> _storage;
  std::unique_ptr<csl::fs_cleaner> _cleaner;
};

}  // namespace faitra_test
