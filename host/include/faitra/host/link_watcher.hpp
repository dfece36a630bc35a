// link_watcher: catalogues, live, the names that link(2), linkat(2) and
// symlink(2) add to a watched directory.
//
// The tracker's monitor makes a capture of a name only once it has seen a
// create and a close after writing (or a move): a new name for a file that
// is already complete (a hard link, an O_TMPFILE file linked in, a symbolic
// link) brings a create and nothing else, so until the next reconcile it
// would stay out of the catalogue, although the start-up scan and the
// reconcile take it. This watcher closes that gap with a small inotify
// descriptor of its own (creates, opens, deletes, moves out):
//  - a symbolic link that the capture filter accepts (one to a regular
//    file) is announced at once;
//  - a regular file is announced when no open of that name follows its
//    create within LINK_GRACE: open(2) with O_CREAT reports the create and
//    the open in the same call, so a writer's new file is never announced
//    (its close reaches the tracker as usual), while a link's name is.
// "Announced" means an fs_entry_created task on the tracker's channel, the
// same task a file renamed in produces, so that the tracker, the cleaner,
// the deriver (which reads the attributes through the name, at once) and
// the export treat the name exactly as a capture renamed in.
//
// The events of the watched directories reach this watcher and the tracker
// by two descriptors; a name the tracker also announces (a link that is
// then written and closed) is refused by the catalogue as already there.
// When this watcher's own queue overflows it calls `on_overflow` (the host
// asks for a reconcile).
//
// Lifetime: stop() (or destroy it) before the tracker's listener group.
// Thread-safety: one thread of its own; stop() from any thread.
#pragma once

#include <faitra/host/capture_filter.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

namespace faitra_host {

class link_watcher {
 public:
  static constexpr std::chrono::milliseconds LINK_GRACE{100};

  link_watcher(cdl::task_listener_group& group, const std::set<std::string>& dirs, capture_filter filter,
               std::function<void()> on_overflow, cdl::log* log);
  ~link_watcher();
  link_watcher(const link_watcher&) = delete;
  link_watcher& operator=(const link_watcher&) = delete;

  // Ends the thread and closes the descriptor; idempotent.
  void stop();

 private:
  void thread_body(int fd, const std::unordered_map<int, std::string>& watches);
  void announce(const std::string& path);

  cdl::task_listener_group& _group;
  capture_filter _filter;
  std::function<void()> _on_overflow;
  cdl::log* _log;
  std::atomic<bool> _stopping{false};
  std::thread _thread;
};

}  // namespace faitra_host
