#include <faitra/host/link_watcher.hpp>

#include <csl/fs_events.hpp>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>

namespace faitra_host {

namespace {

constexpr uint32_t LINK_EVENTS = IN_CREATE | IN_OPEN | IN_DELETE | IN_MOVED_FROM | IN_ONLYDIR;
constexpr int IDLE_POLL_MS = 50;  // how soon stop() is noticed

}  // namespace

link_watcher::link_watcher(cdl::task_listener_group& group, const std::set<std::string>& dirs, capture_filter filter,
                           std::function<void()> on_overflow, cdl::log* log)
    : _group(group), _filter(std::move(filter)), _on_overflow(std::move(on_overflow)), _log(log) {
  const int fd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (fd < 0) {
    if (_log != nullptr) _log->error("Cannot watch for links: inotify_init1: %s", std::strerror(errno));
    return;
  }
  std::unordered_map<int, std::string> watches;
  for (const std::string& dir : dirs) {
    const int watch = ::inotify_add_watch(fd, dir.c_str(), LINK_EVENTS);
    if (watch >= 0) {
      watches.emplace(watch, dir);
    } else if (_log != nullptr) {
      _log->error("Cannot watch %s for links: %s", dir, std::strerror(errno));
    }
  }
  _thread = std::thread([this, fd, watches = std::move(watches)]() mutable {
    // The descriptor and the watch table belong to the thread.
    struct closer {
      int fd;
      ~closer() { ::close(fd); }
    } close_on_exit{fd};
    thread_body(fd, watches);
  });
}

link_watcher::~link_watcher() { stop(); }

void link_watcher::stop() {
  _stopping.store(true);
  if (_thread.joinable()) _thread.join();
}

void link_watcher::announce(const std::string& path) {
  struct stat status {};
  // Gone, or replaced by something else, since its create: the tracker or
  // the reconcile has the last word.
  if (::lstat(path.c_str(), &status) != 0 || !(S_ISREG(status.st_mode) || S_ISLNK(status.st_mode))) return;
  if (!_filter(path)) return;  // a link to something other than a regular file
  if (_log != nullptr) _log->debug("A new name for a complete file: %s", path);
  cdl::task_ptr<cdl::task> task(cdl::memory_pool<csl::fs_entry_created>::make(path));
  _group.task_channel(0).push(std::move(task), static_cast<unsigned long>(-1), false);
}

void link_watcher::thread_body(int fd, const std::unordered_map<int, std::string>& watches) {
  using clock = std::chrono::steady_clock;
  std::map<std::string, clock::time_point> created;  // regular files: path -> when an open would have come
  alignas(inotify_event) char buffer[16 * 1024];
  while (!_stopping.load()) {
    // Every event already queued is read before a grace period is judged,
    // so the open that follows a writer's create is never missed.
    for (;;) {
      const ssize_t n = ::read(fd, buffer, sizeof buffer);
      if (n <= 0) break;
      for (ssize_t offset = 0; offset < n;) {
        inotify_event event{};
        std::memcpy(&event, buffer + offset, sizeof event);
        const char* name = buffer + offset + sizeof event;
        offset += static_cast<ssize_t>(sizeof event + event.len);
        if ((event.mask & IN_Q_OVERFLOW) != 0) {
          if (_log != nullptr) _log->write(cdl::log_priority::warning, "The link watcher's inotify queue overflowed; reconciling now");
          if (_on_overflow) _on_overflow();
          continue;
        }
        const auto watch = watches.find(event.wd);
        if (event.len == 0 || (event.mask & IN_ISDIR) != 0 || watch == watches.end()) continue;
        const std::string path = watch->second + "/" + name;
        if ((event.mask & IN_CREATE) == 0) {
          created.erase(path);  // opened (a writer's file), deleted or moved out
          continue;
        }
        if (!_filter.has_capture_suffix(path)) continue;
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) continue;
        if (S_ISLNK(status.st_mode)) {
          announce(path);  // a symbolic link is complete when it appears
        } else if (S_ISREG(status.st_mode)) {
          created[path] = clock::now() + LINK_GRACE;
        }
      }
    }
    const auto now = clock::now();
    int timeout = IDLE_POLL_MS;
    for (auto it = created.begin(); it != created.end();) {
      if (it->second <= now) {
        announce(it->first);
        it = created.erase(it);
        continue;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(it->second - now).count() + 1;
      timeout = std::min(timeout, static_cast<int>(left));
      ++it;
    }
    pollfd p{fd, POLLIN, 0};
    ::poll(&p, 1, timeout);
  }
}

}  // namespace faitra_host
