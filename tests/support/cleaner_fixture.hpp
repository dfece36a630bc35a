// Running a capture cleaner in a test: a capture directory (a small tmpfs
// mounted for the test, or a plain temporary directory), the tracker that
// watches it, the storage over both, and a cleaner built on demand, torn down
// in the order the cleaner requires. Also the records that a test binary's
// own replacements of syslog() and sleep() fill.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_cleaner.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/nullable.hpp>
#include <cdl/task_system.hpp>

#include "support/temp_dir.hpp"

#include <atomic>
#include <cstdarg>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace faitra_test {

// ---------------------------------------------------------------------------
// What the binary's replacement functions saw.

struct log_line {
  int priority;  // syslog priority, facility removed
  std::string text;
};

// Lines handed to syslog(). A test binary that defines syslog() forwards
// each call to record().
class syslog_record {
 public:
  void record(int priority, const char* format, va_list args);
  std::vector<log_line> lines() const;
  // Lines whose text contains `fragment`.
  std::vector<log_line> matching(const std::string& fragment) const;
  bool contains(const std::string& fragment) const { return !matching(fragment).empty(); }
  bool wait_for(const std::string& fragment) const;
  void clear();

 private:
  mutable std::mutex _mutex;
  std::vector<log_line> _lines;
};
syslog_record& syslog_lines();

// Arguments of the calls to sleep(). A test binary that defines sleep()
// forwards each call to record() and returns at once.
class sleep_record {
 public:
  void record(unsigned int seconds);
  std::vector<unsigned int> calls() const;
  size_t count() const;
  void clear();

 private:
  mutable std::mutex _mutex;
  std::vector<unsigned int> _calls;
};
sleep_record& sleep_calls();

// ---------------------------------------------------------------------------
// Captures.

// A capture as the capture writer makes it. Absent timestamps are not set.
struct capture {
  std::string name;
  unsigned long size;
  unsigned long creation_ts;  // seconds
  std::optional<unsigned long> start_ts;  // nanoseconds
  std::optional<unsigned long> end_ts;
};

// Create, write `size` bytes, close; reopen for writing, set the hash and
// the timestamps with fsetxattr, close. Throws on a failed system call.
void write_capture(const std::string& path, const capture& c);

// Used and total bytes as the storage computes them, from the real statvfs.
struct disk_figures {
  unsigned long used;
  unsigned long total;
};

// ---------------------------------------------------------------------------
// The environment.

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

  // A tmpfs of `tmpfs_bytes` (check mounted()), or with 0 a plain temporary
  // directory. `before_scan`, when set, fills the directory before the
  // tracker's start-up scan (so that many captures can be catalogued without
  // flooding the inotify queue). The tracker watches it from the start; the
  // storage's delete thread runs only after start_runtime().
  explicit cleaner_env(unsigned long tmpfs_bytes, const std::function<void(const std::string& dir)>& before_scan = {});
  ~cleaner_env() { shutdown(); }
  cleaner_env(const cleaner_env&) = delete;
  cleaner_env& operator=(const cleaner_env&) = delete;

  bool ready() const { return _tracker != nullptr; }
  const std::string& reason() const { return _reason; }
  const std::string& dir() const { return _dir; }
  std::string path(const std::string& name) const { return _dir + "/" + name; }

  csl::fs_cleaner& build_cleaner(const cleaner_options& options);
  void start_runtime() { _runtime.start(); }
  // Stops monitoring, then the tracker's groups, then the cleaner, the
  // storage's thread, the storage, the tracker and the cache. Idempotent.
  void shutdown();

  csl::fs_cleaner& cleaner() { return *_cleaner; }
  csl::fs_storage& storage() { return *_storage; }
  csl::fs_cache& cache() { return *_cache; }
  cdl::task_channel& tracker_channel() { return _tracker_listeners->task_channel(0); }
  cdl::log* log() { return &_log; }

  // Writes `c` into the directory and waits until the catalogue holds it
  // with its attributes; false when that does not happen.
  bool add_capture(const capture& c);
  // Whether the file exists on disk.
  bool on_disk(const std::string& name) const;
  // Waits until the file is gone from disk and from the catalogue.
  bool wait_gone(const std::string& name) const;
  // The catalogued record, if any.
  std::optional<csl::fs_entry> record(const std::string& name) const;
  disk_figures figures() const;

  // Calls of the metadata callback, in order. `metadata_hook`, when set, is
  // called after recording and gives the callback's result.
  std::vector<range> metadata_calls() const;
  std::function<cdl::nullable<std::string>(unsigned long, unsigned long)> metadata_hook;
  // Calls of the default refresh function; `reset_result` is its result.
  unsigned long reset_calls() const { return _reset_calls.load(); }
  std::atomic<bool> reset_result{true};

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
