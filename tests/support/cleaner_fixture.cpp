#include "support/cleaner_fixture.hpp"

#include "support/wait.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace faitra_test {

// ---------------------------------------------------------------------------
// Records

void syslog_record::record(int priority, const char* format, va_list args) {
  char buffer[8192];
  std::vsnprintf(buffer, sizeof buffer, format, args);
  const std::lock_guard<std::mutex> lock(_mutex);
  _lines.push_back({priority & LOG_PRIMASK, buffer});
}

std::vector<log_line> syslog_record::lines() const {
  const std::lock_guard<std::mutex> lock(_mutex);
  return _lines;
}

std::vector<log_line> syslog_record::matching(const std::string& fragment) const {
  std::vector<log_line> out;
  for (auto& line : lines()) {
    if (line.text.find(fragment) != std::string::npos) out.push_back(line);
  }
  return out;
}

bool syslog_record::wait_for(const std::string& fragment) const {
  return wait_until([&] { return contains(fragment); });
}

void syslog_record::clear() {
  const std::lock_guard<std::mutex> lock(_mutex);
  _lines.clear();
}

syslog_record& syslog_lines() {
  static syslog_record record;
  return record;
}

void sleep_record::record(unsigned int seconds) {
  const std::lock_guard<std::mutex> lock(_mutex);
  _calls.push_back(seconds);
}

std::vector<unsigned int> sleep_record::calls() const {
  const std::lock_guard<std::mutex> lock(_mutex);
  return _calls;
}

size_t sleep_record::count() const {
  const std::lock_guard<std::mutex> lock(_mutex);
  return _calls.size();
}

void sleep_record::clear() {
  const std::lock_guard<std::mutex> lock(_mutex);
  _calls.clear();
}

sleep_record& sleep_calls() {
  static sleep_record record;
  return record;
}

// ---------------------------------------------------------------------------
// Captures

namespace {

void check(bool ok, const char* what, const std::string& path) {
  if (!ok) throw std::runtime_error(std::string(what) + "(" + path + "): " + std::strerror(errno));
}

bool is_capture(const std::string& name) {
  return name.size() > 5 && name.compare(name.size() - 5, 5, ".pcap") == 0;
}

}  // namespace

void write_capture(const std::string& path, const capture& c) {
  int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  check(fd >= 0, "open", path);
  const std::string chunk(4096, 'c');
  for (unsigned long left = c.size; left > 0;) {
    const unsigned long n = left < chunk.size() ? left : chunk.size();
    const ssize_t written = ::write(fd, chunk.data(), n);
    check(written > 0, "write", path);
    left -= static_cast<unsigned long>(written);
  }
  check(::close(fd) == 0, "close", path);

  fd = ::open(path.c_str(), O_WRONLY);
  check(fd >= 0, "open", path);
  std::vector<std::pair<const char*, std::string>> attributes = {{"user.pcap_hash", "hash-" + c.name}};
  if (c.start_ts) attributes.emplace_back("user.pcap_start_ts", std::to_string(*c.start_ts));
  if (c.end_ts) attributes.emplace_back("user.pcap_end_ts", std::to_string(*c.end_ts));
  attributes.emplace_back("user.pcap_creation_ts", std::to_string(c.creation_ts));
  for (const auto& [name, value] : attributes) {
    check(::fsetxattr(fd, name, value.data(), value.size(), 0) == 0, "fsetxattr", path);
  }
  check(::close(fd) == 0, "close", path);
}

// ---------------------------------------------------------------------------
// Environment

cleaner_env::cleaner_env(unsigned long tmpfs_bytes, const std::function<void(const std::string& dir)>& before_scan) {
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
  _tracker = std::make_shared<csl::fs_tracker>(*_tracker_listeners, _cache, _dir, std::set<std::string>{_dir}, true,
                                               is_capture, 236, &_log);
  _storage = std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, &_log);
}

csl::fs_cleaner& cleaner_env::build_cleaner(const cleaner_options& options) {
  auto metadata = [this](unsigned long start, unsigned long end) -> cdl::nullable<std::string> {
    {
      const std::lock_guard<std::mutex> lock(_metadata_mutex);
      _metadata_calls.emplace_back(start, end);
    }
    return metadata_hook ? metadata_hook(start, end) : cdl::nullable<std::string>();
  };
  csl::fs_cleaner::reset_disk_cache_type reset = [this] {
    _reset_calls.fetch_add(1);
    return reset_result.load();
  };
  if (options.reset_disk_cache) reset = *options.reset_disk_cache;
  _cleaner = std::make_unique<csl::fs_cleaner>(_core, *_tracker_listeners, _storage, metadata, options.enabled, reset,
                                               options.trigger, options.stop, options.verbose, &_log);
  return *_cleaner;
}

void cleaner_env::shutdown() {
  if (_tracker) _tracker->stop_monitoring();
  _tracker_listeners.reset();
  _tracker_workers.reset();
  _cleaner.reset();
  _runtime.stop();
  _storage.reset();
  _tracker.reset();
  _cache.reset();
}

bool cleaner_env::add_capture(const capture& c) {
  write_capture(path(c.name), c);
  return wait_until([&] {
    const auto r = record(c.name);
    return r && r->has_extended_attributes() && r->creation_ts == c.creation_ts;
  });
}

bool cleaner_env::on_disk(const std::string& name) const {
  struct stat status {};
  return ::stat(path(name).c_str(), &status) == 0;
}

bool cleaner_env::wait_gone(const std::string& name) const {
  return wait_until([&] { return !on_disk(name) && !_cache->path_exists(path(name)); });
}

std::optional<csl::fs_entry> cleaner_env::record(const std::string& name) const {
  csl::fs_entry out;
  if (!_cache->by_path(out, path(name))) return std::nullopt;
  return out;
}

disk_figures cleaner_env::figures() const {
  struct statvfs s {};
  check(::statvfs(_dir.c_str(), &s) == 0, "statvfs", _dir);
  const unsigned long total = s.f_bsize * s.f_blocks;
  return {total - s.f_bsize * s.f_bfree, total};
}

std::vector<cleaner_env::range> cleaner_env::metadata_calls() const {
  const std::lock_guard<std::mutex> lock(_metadata_mutex);
  return _metadata_calls;
}

}  // namespace faitra_test
