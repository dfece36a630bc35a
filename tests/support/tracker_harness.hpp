// Running a filesystem tracker in a test: the task runtime it needs, the
// teardown order it requires, captures written the way the capture writer
// writes them, and a log whose lines the test can read.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/task_system.hpp>

#include "support/stdout_capture.hpp"
#include "support/wait.hpp"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace faitra_test {

// The capture filter, by name ending only: it accepts the bare name the scan
// passes and the full path the monitor passes alike.
inline bool is_capture_name(const std::string& name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, ".pcap") == 0;
}

struct capture_attributes {
  std::string hash;
  unsigned long start_ts;
  unsigned long end_ts;
  long creation_ts;
};

inline void check_syscall(bool ok, const char* what, const std::string& path) {
  if (!ok) throw std::runtime_error(std::string(what) + "(" + path + "): " + std::strerror(errno));
}

// Writes `size` bytes to `path` (created or truncated) and closes it.
inline void write_and_close(const std::string& path, unsigned long size) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  check_syscall(fd >= 0, "open", path);
  const std::string chunk(4096, 'p');
  while (size > 0) {
    const ssize_t written = ::write(fd, chunk.data(), size < chunk.size() ? size : chunk.size());
    check_syscall(written > 0, "write", path);
    size -= static_cast<unsigned long>(written);
  }
  check_syscall(::close(fd) == 0, "close", path);
}

// Reopens `path` for writing, sets the attributes on the open descriptor and
// closes it: the second close, which brings the attributes in.
inline void set_attributes(const std::string& path, const std::vector<std::pair<const char*, std::string>>& values) {
  const int fd = ::open(path.c_str(), O_WRONLY);
  check_syscall(fd >= 0, "open", path);
  for (const auto& [name, value] : values) {
    check_syscall(::fsetxattr(fd, name, value.data(), value.size(), 0) == 0, "fsetxattr", path);
  }
  check_syscall(::close(fd) == 0, "close", path);
}

inline void set_capture_attributes(const std::string& path, const capture_attributes& a) {
  set_attributes(path, {{"user.pcap_hash", a.hash},
                        {"user.pcap_start_ts", std::to_string(a.start_ts)},
                        {"user.pcap_end_ts", std::to_string(a.end_ts)},
                        {"user.pcap_creation_ts", std::to_string(a.creation_ts)}});
}

// A new capture as the capture writer makes it: create, write, close; then
// reopen, set the attributes, close.
inline void write_capture(const std::string& path, unsigned long size, const capture_attributes& a) {
  write_and_close(path, size);
  set_capture_attributes(path, a);
}

// A debug-level log named "tracker" whose lines the test reads back.
class captured_log : public stdout_log_capture {
 public:
  captured_log() : stdout_log_capture("tracker") {}
};

// One worker group, a listener group over it, a cache, and (once started) a
// tracker; torn down in the order the tracker requires: stop monitoring, then
// the groups (no handler runs any more), then the tracker.
class tracker_harness {
 public:
  explicit tracker_harness(unsigned long workers = 1)
      : _workers(std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{workers, "Tracker"})),
        _listeners(std::make_unique<cdl::task_listener_group>(*_workers)),
        _cache(std::make_shared<csl::fs_cache>()) {}
  ~tracker_harness() { stop(); }
  tracker_harness(const tracker_harness&) = delete;
  tracker_harness& operator=(const tracker_harness&) = delete;

  csl::fs_tracker& start(const std::string& root, std::set<std::string> paths, bool monitor = true,
                         cdl::log* log = nullptr, csl::fs_tracker::filter_type filter = is_capture_name) {
    _tracker = std::make_unique<csl::fs_tracker>(*_listeners, _cache, root, std::move(paths), monitor,
                                                 std::move(filter), 236, log);
    return *_tracker;
  }
  csl::fs_tracker& start(const std::string& dir, bool monitor = true, cdl::log* log = nullptr) {
    return start(dir, {dir}, monitor, log);
  }
  void stop() {
    if (_tracker) _tracker->stop_monitoring();
    _listeners.reset();
    _workers.reset();
    _tracker.reset();
  }

  cdl::task_channel& channel() { return _listeners->task_channel(0); }
  csl::fs_cache& cache() { return *_cache; }
  csl::fs_tracker& tracker() { return *_tracker; }

  std::optional<csl::fs_entry> find(const std::string& path) const {
    csl::fs_entry out;
    if (!_cache->by_path(out, path)) return std::nullopt;
    return out;
  }
  bool wait_cached(const std::string& path) const {
    return wait_until([&] { return _cache->path_exists(path); });
  }
  bool wait_gone(const std::string& path) const {
    return wait_until([&] { return !_cache->path_exists(path); });
  }

 private:
  cdl::core _core;
  std::unique_ptr<cdl::worker_group> _workers;
  std::unique_ptr<cdl::task_listener_group> _listeners;
  std::shared_ptr<csl::fs_cache> _cache;
  std::unique_ptr<csl::fs_tracker> _tracker;
};

inline std::string text_of(const cdl::nullable<std::string>& v) { return v.is_null() ? "<null>" : *v; }
inline std::string text_of(const cdl::nullable<unsigned long>& v) {
  return v.is_null() ? "<null>" : std::to_string(*v);
}

// What a record says, without its deletion marker, for comparing catalogues.
struct record_view {
  std::string key;  // "<null>" when absent
  std::string start_ts;
  std::string end_ts;
  unsigned long creation_ts;
  unsigned long file_size;
  bool operator==(const record_view&) const = default;
};

inline std::ostream& operator<<(std::ostream& os, const record_view& r) {
  return os << "{key " << r.key << ", start " << r.start_ts << ", end " << r.end_ts << ", creation " << r.creation_ts
            << ", size " << r.file_size << "}";
}

inline std::map<std::string, record_view> contents(const csl::fs_cache& cache) {
  std::map<std::string, record_view> out;
  csl::fs_cache::shared_guard lock(cache);
  for (const auto& [path, e] : cache.path_cache()) {
    out.emplace(std::string(path),
                record_view{text_of(e->key), text_of(e->start_ts), text_of(e->end_ts), e->creation_ts, e->file_size});
  }
  return out;
}

}  // namespace faitra_test
