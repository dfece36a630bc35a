// The inotify half of fs_tracker: watches, the monitor thread and the
// folding of raw events into file-event tasks.
#include <csl/fs_tracker.hpp>

#include <cdl/exception.hpp>
#include <cdl/text.hpp>

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <map>

namespace csl {

namespace {
constexpr long INOTIFY_EVENT_HEADER_SIZE = 16;  // wd, mask, cookie, len
constexpr useconds_t IDLE_PAUSE_US = 10000;
}  // namespace

bool fs_tracker::init_monitoring() {
  _event_buffer.resize(_read_buffer_size);
  _inotify_fd = ::inotify_init();
  const int init_error = errno;  // fcntl on a failed descriptor would overwrite it
  ::fcntl(_inotify_fd, F_SETFL, O_NONBLOCK);
  if (_inotify_fd < 0) cdl::throw_assert(CDL_FILE_NAME, __LINE__, "fd < 0, error: %s", std::strerror(init_error));
  _monitor_initialised = true;
  for (const std::string& path : _paths) {
    const int watch = ::inotify_add_watch(_inotify_fd, path.c_str(), WATCH_MASK);
    if (watch < 0) {
      if (_log != nullptr) _log->critical("inotify_add_watch failed on %s", path);
      continue;
    }
    _watches.emplace(watch, path);
  }
  return true;
}

void fs_tracker::start_monitoring() {
  init_monitoring();
  _running = true;
  _monitor_thread = std::thread(&fs_tracker::do_monitoring, this);
}

void fs_tracker::stop_monitoring() {
  _running = false;
  if (_monitor_thread.joinable()) _monitor_thread.join();
  if (!_monitor_initialised) return;
  for (const auto& [watch, path] : _watches) ::inotify_rm_watch(_inotify_fd, watch);
  _watches.clear();
  ::close(_inotify_fd);
  _monitor_initialised = false;
}

void fs_tracker::do_monitoring() {
  try {
    const std::string separator(1, cdl::path_separator());
    std::map<std::string, uint32_t> pending;  // bare name -> accumulated mask
    while (_running) {
      const long n = ::read(_inotify_fd, _event_buffer.data(), _read_buffer_size);
      if (n == -1 && errno == EAGAIN) {
        ::usleep(IDLE_PAUSE_US);
        continue;
      }
      if (n == -1) {
        if (!_running) break;
        throw cdl::exception(CDL_FILE_NAME, __LINE__, "read error, errno: %s", std::strerror(errno));
      }
      if (n == 0) {
        if (_log != nullptr) _log->error("read from inotify returned %lu", static_cast<unsigned long>(n));
        continue;
      }

      long offset = 0;
      while (offset < n) {
        inotify_event event{};
        std::memcpy(&event, _event_buffer.data() + offset, INOTIFY_EVENT_HEADER_SIZE);
        const char* event_name = _event_buffer.data() + offset + INOTIFY_EVENT_HEADER_SIZE;
        offset += INOTIFY_EVENT_HEADER_SIZE + event.len;

        if ((event.mask & IN_Q_OVERFLOW) != 0) _queue_overflows.fetch_add(1, std::memory_order_relaxed);
        if (event.len == 0) continue;  // about the directory itself (or a queue overflow)
        const auto watch = _watches.find(event.wd);
        if (watch == _watches.end()) continue;
        const std::string name(event_name);
        const std::string path = watch->second + separator + name;
        if ((event.mask & IN_ISDIR) != 0) continue;
        if (!_filter(path)) continue;

        uint32_t& accumulated = pending[name];
        accumulated |= event.mask;
        const uint32_t m = accumulated;
        if (((m & IN_CREATE) != 0 && (m & IN_CLOSE_WRITE) != 0) || (m & (IN_MOVED_FROM | IN_MOVED_TO)) != 0) {
          pending.erase(name);
          push(cdl::memory_pool<fs_entry_created>::make(path));
        } else if ((m & IN_CREATE) == 0 && (m & IN_CLOSE_WRITE) != 0) {
          pending.erase(name);
          push(cdl::memory_pool<fs_entry_updated>::make(path));
        } else if ((m & IN_DELETE) != 0) {
          pending.erase(name);
          push(cdl::memory_pool<fs_entry_deleted>::make(path));
        }
      }
    }
  } catch (const std::exception& e) {
    if (_log != nullptr) _log->critical("Monitoring failed: %s", e.what());
  }
}

}  // namespace csl
