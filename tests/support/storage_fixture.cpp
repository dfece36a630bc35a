#include "support/storage_fixture.hpp"

#include "support/wait.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>

namespace faitra_test {

bool is_pcap_name(const std::string& name) {
  static const std::string suffix = ".pcap";
  return name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::string> make_captures(const std::string& dir, const std::vector<std::string>& names) {
  std::vector<std::string> paths;
  for (const auto& name : names) {
    const std::string path = dir + "/" + name;
    const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    if (fd < 0) throw std::runtime_error("open(" + path + "): " + std::strerror(errno));
    ::close(fd);
    paths.push_back(path);
  }
  return paths;
}

bool exists_on_disk(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

stdout_log::stdout_log() {
  std::fflush(stdout);
  _sink = std::tmpfile();
  if (_sink == nullptr) throw std::runtime_error("tmpfile failed");
  _saved = ::dup(STDOUT_FILENO);
  if (_saved < 0 || ::dup2(::fileno(_sink), STDOUT_FILENO) < 0) {
    std::fclose(_sink);
    throw std::runtime_error("cannot redirect standard output");
  }
}

stdout_log::~stdout_log() {
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

std::string stdout_log::text() const {
  // Lines are flushed as they are written; read the file by offset so the
  // writer's position is left alone.
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

namespace {

template <typename Match>
size_t count_lines(const std::string& text, Match match) {
  size_t count = 0;
  size_t begin = 0;
  while (begin < text.size()) {
    size_t end = text.find('\n', begin);
    if (end == std::string::npos) end = text.size();
    if (match(text.substr(begin, end - begin))) ++count;
    begin = end + 1;
  }
  return count;
}

}  // namespace

size_t stdout_log::count_line(const std::string& line) const {
  return count_lines(text(), [&](const std::string& l) { return l == line; });
}

size_t stdout_log::count_prefix(const std::string& prefix) const {
  return count_lines(text(), [&](const std::string& l) { return l.compare(0, prefix.size(), prefix) == 0; });
}

storage_fixture::storage_fixture(const std::string& dir, cdl::log* storage_log, bool monitor)
    : _workers(std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{1, "Storage fixture tracker"})),
      _listeners(std::make_unique<cdl::task_listener_group>(*_workers)),
      _cache(std::make_shared<csl::fs_cache>()),
      _tracker(std::make_shared<csl::fs_tracker>(*_listeners, _cache, dir, std::set<std::string>{dir}, monitor,
                                                 is_pcap_name, csl::fs_tracker::EMPTY_FILE_SIZE_LIMIT, nullptr)),
      _storage(std::make_shared<csl::fs_storage>(_runtime, _cache, _tracker, storage_log)) {}

storage_fixture::~storage_fixture() {
  shutdown();
  _storage.reset();
  _tracker.reset();
  _cache.reset();
}

void storage_fixture::shutdown() {
  _runtime.stop();
  if (_tracker) _tracker->stop_monitoring();
  _listeners.reset();
  _workers.reset();
}

void storage_fixture::set_times(const std::string& path, unsigned long creation_ts, unsigned long start_ts) {
  csl::fs_entry record;
  ASSERT_TRUE(_cache->by_path(record, path)) << path << " is not catalogued";
  record.creation_ts = creation_ts;
  record.start_ts = start_ts;
  ASSERT_TRUE(_cache->update(record)) << path;
}

std::optional<csl::fs_entry> storage_fixture::find(const std::string& path) const {
  csl::fs_entry record;
  if (!_cache->by_path(record, path)) return std::nullopt;
  return record;
}

csl::fs_entry::deletion_by storage_fixture::marker(const std::string& path) const {
  const auto record = find(path);
  return record ? record->deletion.load() : csl::fs_entry::deletion_by::none;
}

bool storage_fixture::wait_gone(const std::string& path) const {
  return wait_until([&] { return !_cache->path_exists(path); });
}

}  // namespace faitra_test
