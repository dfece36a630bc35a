// A capture storage wired the way a host wires it, on a real directory:
// a catalogue, a tracker on a one-worker listener group (scanning the
// directory at construction, then watching it with inotify), the storage
// over both, and the runtime whose start and stop callbacks run the
// storage's delete thread. Teardown follows the order the tracker needs.
//
// Also a log whose lines a test can read back (stdout_log), and small
// helpers to lay out capture files.
//
// Typical use:
//
//   faitra_test::temp_dir dir;
//   faitra_test::make_captures(dir.path(), {"a.pcap", "b.pcap"});
//   faitra_test::stdout_log log;                 // before the fixture
//   faitra_test::storage_fixture env(dir.path(), log.log());
//   env.set_times(dir.file("a.pcap"), 100, 10);  // creation, start
//   env.start();                                 // delete thread runs
//   env.storage().delete_by_path(dir.file("a.pcap"), ...);
//   env.wait_gone(dir.file("a.pcap"));
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace faitra_test {

// The capture filter of the fixture: names ending in ".pcap". Works on the
// bare names the scan passes and the full paths the monitor passes alike.
bool is_pcap_name(const std::string& name);

// Creates an empty file for each name in `dir`; returns their full paths
// in the order given.
std::vector<std::string> make_captures(const std::string& dir, const std::vector<std::string>& names);

// Whether `path` exists on disk (any file type).
bool exists_on_disk(const std::string& path);

// A debug-level log (type os, name "storage") printing on standard output,
// with file descriptor 1 pointed at a temporary file for the object's
// lifetime, so lines written by any thread can be read back. If the test
// failed, everything captured (the framework's failure messages included)
// is replayed on the real standard output at destruction.
//
// Create it before anything that logs through it and destroy it after: the
// storage's delete thread logs until the runtime stops. Relies on each test
// running in its own process (gtest_discover_tests), so nobody else writes
// to standard output meanwhile.
class stdout_log {
 public:
  stdout_log();
  ~stdout_log();
  stdout_log(const stdout_log&) = delete;
  stdout_log& operator=(const stdout_log&) = delete;

  cdl::log* log() { return &_log; }

  // Everything written so far.
  std::string text() const;
  // How many lines equal `line` exactly.
  size_t count_line(const std::string& line) const;
  bool has_line(const std::string& line) const { return count_line(line) > 0; }
  // How many lines start with `prefix`.
  size_t count_prefix(const std::string& prefix) const;
  // The line as this log writes it: "os - storage - <body>".
  static std::string line(const std::string& body) { return "os - storage - " + body; }

 private:
  std::FILE* _sink = nullptr;
  int _saved = -1;
  cdl::log _log{cdl::log_type::os, cdl::log_facility::local0, "storage", cdl::log_priority::debug, true};
};

class storage_fixture {
 public:
  // `dir` is the root and the only watched path. The tracker scans it here
  // (without logging) and watches it when `monitor` is true; the storage
  // logs through `storage_log` (may be null). The delete thread does not
  // run until start().
  explicit storage_fixture(const std::string& dir, cdl::log* storage_log = nullptr, bool monitor = true);
  // Calls shutdown(), then destroys the storage, the tracker and the cache.
  ~storage_fixture();
  storage_fixture(const storage_fixture&) = delete;
  storage_fixture& operator=(const storage_fixture&) = delete;

  // The runtime's start and stop: start and stop (join) the delete thread.
  // The runtime runs each set of callbacks once: after stop() the delete
  // thread cannot be started again.
  void start() { _runtime.start(); }
  void stop() { _runtime.stop(); }

  // Stops the runtime and the monitor, then destroys the listener and
  // worker groups so that no handler runs any more. Call it before
  // destroying an object that registered handlers on listeners() (a
  // cleaner). Idempotent; storage(), cache() and tracker() stay usable.
  void shutdown();

  cdl::core& core() { return _core; }
  cdl::runtime& runtime() { return _runtime; }
  cdl::task_listener_group& listeners() { return *_listeners; }
  csl::fs_cache& cache() { return *_cache; }
  csl::fs_tracker& tracker() { return *_tracker; }
  csl::fs_storage& storage() { return *_storage; }
  const std::shared_ptr<csl::fs_cache>& cache_ptr() const { return _cache; }
  const std::shared_ptr<csl::fs_storage>& storage_ptr() const { return _storage; }

  // Sets the creation and start timestamps of a catalogued record through
  // the catalogue's update, as the tracker does when attributes arrive.
  // Fails the current test if `path` is not catalogued.
  void set_times(const std::string& path, unsigned long creation_ts, unsigned long start_ts);

  // A copy of the catalogued record of `path`, if any.
  std::optional<csl::fs_entry> find(const std::string& path) const;
  // The marker of the catalogued record of `path` (none when absent).
  csl::fs_entry::deletion_by marker(const std::string& path) const;

  // Waits (bounded) until the tracker has erased the record of `path`.
  bool wait_gone(const std::string& path) const;

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
