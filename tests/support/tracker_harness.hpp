// Running a filesystem tracker in a test: the task runtime it needs, the
// teardown order it requires, captures written the way the capture writer
// writes them, and a log whose lines the test can read.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_reader.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>

namespace faitra_test {

// The capture filter: by name ending only, so it accepts the bare name the
// scan passes and the full path the monitor passes alike.
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
    const unsigned long n = size < chunk.size() ? size : chunk.size();
    const ssize_t written = ::write(fd, chunk.data(), n);
    check_syscall(written > 0, "write", path);
    size -= static_cast<unsigned long>(written);
  }
  check_syscall(::close(fd) == 0, "close", path);
}

// Reopens `path` for writing, sets the four capture attributes on the open
// descriptor and closes it: the second close that brings the attributes in.
inline void set_capture_attributes(const std::string& path, const capture_attributes& a) {
  const int fd = ::open(path.c_str(), O_WRONLY);
  check_syscall(fd >= 0, "open", path);
  const std::pair<const char*, std::string> values[] = {
      {"user.pcap_hash", a.hash},
      {"user.pcap_start_ts", std::to_string(a.start_ts)},
      {"user.pcap_end_ts", std::to_string(a.end_ts)},
      {"user.pcap_creation_ts", std::to_string(a.creation_ts)},
  };
  for (const auto& [name, value] : values) {
    check_syscall(::fsetxattr(fd, name, value.data(), value.size(), 0) == 0, "fsetxattr", path);
  }
  check_syscall(::close(fd) == 0, "close", path);
}

// A new capture as the capture writer makes it: create, write, close; then
// reopen, set the attributes, close.
inline void write_capture(const std::string& path, unsigned long size, const capture_attributes& a) {
  write_and_close(path, size);
  set_capture_attributes(path, a);
}

// A log at debug level printing on standard output, with standard output
// pointed at a temporary file for the object's lifetime. Lines are read back
// with text()/contains(); if the test failed, everything captured (the test
// framework's failure messages included) is replayed on the real standard
// output when the object is destroyed.
class captured_log {
 public:
  captured_log() {
    std::fflush(stdout);
    _sink = std::tmpfile();
    if (_sink == nullptr) throw std::runtime_error("tmpfile failed");
    _saved = ::dup(STDOUT_FILENO);
    if (_saved < 0 || ::dup2(::fileno(_sink), STDOUT_FILENO) < 0) throw std::runtime_error("cannot redirect stdout");
  }
  ~captured_log() {
    std::fflush(stdout);
    ::dup2(_saved, STDOUT_FILENO);
    ::close(_saved);
    if (::testing::Test::HasFailure()) {
      const std::string captured = text();
      std::fwrite(captured.data(), 1, captured.size(), stdout);
      std::fflush(stdout);
    }
    std::fclose(_sink);
  }
  captured_log(const captured_log&) = delete;
  captured_log& operator=(const captured_log&) = delete;

  cdl::log* log() { return &_log; }

  std::string text() const {
    std::string out;
    char buffer[4096];
    off_t offset = 0;
    for (;;) {
      const ssize_t n = ::pread(::fileno(_sink), buffer, sizeof buffer, offset);
      if (n <= 0) break;
      out.append(buffer, static_cast<size_t>(n));
      offset += n;
    }
    return out;
  }
  bool contains(const std::string& fragment) const { return text().find(fragment) != std::string::npos; }
  bool wait_for(const std::string& fragment) const {
    return wait_until([&] { return contains(fragment); });
  }

 private:
  std::FILE* _sink = nullptr;
  int _saved = -1;
  cdl::log _log{cdl::log_type::os, cdl::log_facility::local0, "tracker", cdl::log_priority::debug, true};
};

// One worker, a listener group over it, a cache, and (once started) a
// tracker; torn down in the order the tracker requires: stop monitoring,
// then the listener and worker groups (no handler can run any more), then
// the tracker.
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
  cdl::task_listener_group& listeners() { return *_listeners; }
  csl::fs_cache& cache() { return *_cache; }
  csl::fs_tracker& tracker() { return *_tracker; }

  // The cached record of `path`, if any.
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

// What a record says, without its deletion marker, for comparing catalogues.
struct record_view {
  std::string key;  // "<null>" when absent
  std::string start_ts;
  std::string end_ts;
  unsigned long creation_ts;
  unsigned long file_size;
  bool operator==(const record_view&) const = default;
};

inline std::string text_of(const cdl::nullable<std::string>& v) { return v.is_null() ? "<null>" : *v; }
inline std::string text_of(const cdl::nullable<unsigned long>& v) {
  return v.is_null() ? "<null>" : std::to_string(*v);
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

inline std::ostream& operator<<(std::ostream& os, const record_view& r) {
  return os << "{key " << r.key << ", start " << r.start_ts << ", end " << r.end_ts << ", creation " << r.creation_ts
            << ", size " << r.file_size << "}";
}

}  // namespace faitra_test
