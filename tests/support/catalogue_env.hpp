// A capture directory catalogued the way a host wires it: a catalogue, a
// tracker on a one-worker listener group (scanning the directory, then
// watching it), the storage over both with its delete thread run by the
// runtime (only after start_runtime()), and a cleaner built on demand whose
// metadata calls are recorded. Torn down in the order the cleaner and the
// tracker require: monitoring, the tracker's groups, the cleaner, the
// runtime, then the rest.
#pragma once

#include <csl/fs_cleaner.hpp>
#include <csl/fs_tracker.hpp>

#include "support/files.hpp"
#include "support/wait.hpp"

#include <mutex>
#include <optional>

namespace faitra_test {

// The capture filter, by name ending only: it accepts the bare name the scan
// passes and the full path the monitor passes alike.
inline bool is_capture_name(const std::string& name) { return name.ends_with(".pcap"); }

struct env_options {
  unsigned long tmpfs_bytes = 0;  // 0: a plain temporary directory
  bool monitor = true;
  cdl::log* log = nullptr;
  std::function<void(const std::string& dir)> before_scan{};
  csl::fs_tracker::filter_type filter = is_capture_name;
  std::function<void(cdl::task_channel&)> on_channel{};  // listeners registered before the scan
};
struct cleaner_options {
  bool enabled = true;
  float trigger = 0.5f, stop = 0.3f;
  bool verbose = false;
  std::optional<csl::fs_cleaner::reset_disk_cache_type> reset_disk_cache{};  // else a succeeding one
};

class catalogue_env {
 public:
  using range = std::pair<unsigned long, unsigned long>;

  explicit catalogue_env(const env_options& o = {}) : _log(o.log) {
    if (o.tmpfs_bytes != 0 && !_mount.emplace(o.tmpfs_bytes).mounted()) return;
    _dir = _mount ? _mount->path() : _plain.emplace().path();
    if (o.before_scan) o.before_scan(_dir);
    _listeners = std::make_unique<cdl::task_listener_group>(*_workers);
    if (o.on_channel) o.on_channel(channel());
    _tracker = std::make_shared<csl::fs_tracker>(*_listeners, _cache, _dir, std::set<std::string>{_dir}, o.monitor,
                                                 o.filter, csl::fs_tracker::EMPTY_FILE_SIZE_LIMIT, _log);
    _storage = std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, _log);
  }
  ~catalogue_env() { shutdown(); }
  catalogue_env(const catalogue_env&) = delete;
  catalogue_env& operator=(const catalogue_env&) = delete;

  bool ready() const { return _tracker != nullptr; }
  std::string reason() const { return _mount ? _mount->reason() : ""; }
  const std::string& dir() const { return _dir; }
  std::string path(const std::string& name) const { return _dir + "/" + name; }

  csl::fs_cleaner& build_cleaner(const cleaner_options& o) {
    auto metadata = [this](unsigned long start, unsigned long end) {
      {
        const std::lock_guard<std::mutex> lock(_mutex);
        _metadata_calls.emplace_back(start, end);
      }
      return metadata_hook ? metadata_hook(start, end) : cdl::nullable<std::string>();
    };
    _cleaner = std::make_unique<csl::fs_cleaner>(_core, *_listeners, _storage, metadata, o.enabled,
                                                 o.reset_disk_cache.value_or([] { return true; }), o.trigger,
                                                 o.stop, o.verbose, _log);
    return *_cleaner;
  }
  void start_runtime() { _runtime.start(); }
  void stop_runtime() { _runtime.stop(); }
  void shutdown() {
    if (_tracker) _tracker->stop_monitoring();
    _listeners.reset();
    _workers.reset();
    _cleaner.reset();
    _runtime.stop();
  }

  csl::fs_cache& cache() { return *_cache; }
  csl::fs_tracker& tracker() { return *_tracker; }
  csl::fs_storage& storage() { return *_storage; }
  cdl::task_channel& channel() { return _listeners->task_channel(0); }
  size_t created_handlers() {
    return (*channel().dispatchers())[channel().worker_id()].handler_count(
        cdl::task_type::identify<csl::fs_entry_created>(), csl::FS_EVENT_VERSION);
  }

  std::optional<csl::fs_entry> record(const std::string& name) const {
    csl::fs_entry out;
    return _cache->by_path(out, path(name)) ? std::optional(out) : std::nullopt;
  }
  csl::fs_entry::deletion_by marker(const std::string& name) const {
    const auto r = record(name);
    return r ? r->deletion.load() : csl::fs_entry::deletion_by::none;
  }
  bool wait_cached(const std::string& name) const {
    return wait_until([&] { return _cache->path_exists(path(name)); });
  }
  // Gone from disk and, once the tracker has seen that, from the catalogue.
  bool wait_gone(const std::string& name) const {
    return wait_until([&] { return !exists(path(name)) && !_cache->path_exists(path(name)); });
  }
  // Writes a capture; waits until it is catalogued with its attributes.
  bool add_capture(const std::string& name, unsigned long size, const capture_attributes& a) {
    write_capture(path(name), size, a);
    return wait_until([&] {
      const auto r = record(name);
      return r && r->has_extended_attributes() && r->creation_ts == static_cast<unsigned long>(a.creation_ts);
    });
  }
  // Writes a sentinel capture and waits for it: the monitor pushes in the
  // order it reads and one worker handles in push order, so every earlier
  // event has been handled. "Nothing happened" is never proven by waiting.
  bool drain() {
    const std::string name = "sentinel-" + std::to_string(++_sentinels) + ".pcap";
    write_and_close(path(name), 1);
    return wait_cached(name);
  }

  std::vector<range> metadata_calls() const {
    const std::lock_guard<std::mutex> lock(_mutex);
    return _metadata_calls;
  }
  // Runs after a metadata call is recorded; gives the callback's result.
  std::function<cdl::nullable<std::string>(unsigned long, unsigned long)> metadata_hook;

 private:
  std::optional<tmpfs_mount> _mount;
  std::optional<temp_dir> _plain;
  std::string _dir;
  cdl::log* _log;
  int _sentinels = 0;
  mutable std::mutex _mutex;
  std::vector<range> _metadata_calls;
  cdl::core _core;
  cdl::runtime _runtime;
  std::shared_ptr<csl::fs_cache> _cache = std::make_shared<csl::fs_cache>();
  std::unique_ptr<cdl::worker_group> _workers =
      std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{1, "Tracker"});
  std::unique_ptr<cdl::task_listener_group> _listeners;
  std::shared_ptr<csl::fs_tracker> _tracker;
  std::shared_ptr<csl::fs_storage> _storage;
  std::unique_ptr<csl::fs_cleaner> _cleaner;
};

}  // namespace faitra_test
