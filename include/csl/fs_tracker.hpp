// csl::fs_tracker: keeps a catalogue in step with a capture directory.
//
// Construction scans every watched directory into the cache (announcing
// captures without attributes, or with attributes but empty, as tasks on
// channel 0 of the listener group), then, when asked to monitor, registers
// its handlers for the created, updated and deleted tasks on that channel and
// starts the inotify thread. The monitor folds each name's raw events into
// one task and pushes it; the handlers apply it to the cache:
//  - created: stat only, insert a record without attributes;
//  - updated: stat and attributes, update only if the file has a hash;
//  - deleted: erase the record.
// Folding rules (per bare name, kept for compatibility): create+close-write,
// or any move, gives "created"; close-write without create gives "updated";
// delete gives "deleted"; anything else accumulates. So attribute changes
// arrive with the next close of the file, a file moved out of a watched
// directory yields "created" (which then fails its stat), and the queue
// overflow event is ignored, only counted (queue_overflows()) so that a
// host can tell that events were lost. Scanning happens before watching; a
// file changed in between is missed. Hosts repair both with a reconcile.
//
// Watched paths must start with the root path (plain prefix comparison).
// The listener group must have exactly one channel, so events of one path
// are applied in the order they were seen.
//
// Lifetime: call stop_monitoring(), then destroy the listener group and its
// worker group (so no handler can run), then the tracker.
//
// Thread-safety: handlers run on the group's single worker; the monitor
// thread only reads the directory and pushes tasks. The cache locks itself.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_events.hpp>
#include <csl/fs_reader.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace csl {

class fs_tracker : public cdl::task_listener {
 public:
  using filter_type = std::function<bool(const std::string&)>;

  // Events inotify reports for every watched directory: attribute change,
  // close after write, moves in and out, create, delete.
  static constexpr uint32_t WATCH_MASK = 0x3cc;
  // A file with attributes and at most this many bytes counts as empty.
  static constexpr unsigned long EMPTY_FILE_SIZE_LIMIT = 236;

  fs_tracker(cdl::task_listener_group& group, std::shared_ptr<fs_cache> cache, const std::string& root_path,
             std::set<std::string> paths, bool monitor, filter_type filter, unsigned long empty_message_size,
             cdl::log* log);
  ~fs_tracker() override;
  fs_tracker(const fs_tracker&) = delete;
  fs_tracker& operator=(const fs_tracker&) = delete;

  const std::string& root_path() const { return _root_path; }
  const std::set<std::string>& paths() const { return _paths; }

  void handle_fs_entry_missing_xattr_on_init(fs_entry& entry);
  void handle_fs_entry_has_xattr_but_empty_on_init(fs_entry& entry);

  void handle(cdl::task_ptr<fs_entry_created>& task);
  void handle(cdl::task_ptr<fs_entry_updated>& task);
  void handle(cdl::task_ptr<fs_entry_deleted>& task);

  void start_monitoring();
  // Idempotent: stops and joins the thread, removes the watches, closes the
  // descriptor.
  void stop_monitoring();
  bool init_monitoring();
  void do_monitoring();

  // Whether the monitor thread is meant to be running.
  bool monitoring() const { return _running.load(); }
  // How many times the kernel reported that its event queue overflowed
  // (events were lost); callable from any thread.
  unsigned long queue_overflows() const { return _queue_overflows.load(std::memory_order_relaxed); }
  // The reader, for hosts that re-read files on the tracker's own channel.
  fs_reader& reader() { return _reader; }

 private:
  void push(cdl::task_ptr<cdl::task>&& task);
  void push_held();

  std::string _root_path;
  std::set<std::string> _paths;
  unsigned long _event_count;
  unsigned long _read_buffer_size;
  cdl::task_listener_group& _group;
  fs_reader _reader;
  std::shared_ptr<fs_cache> _cache;
  std::thread _monitor_thread;
  std::atomic<bool> _running;
  int32_t _inotify_fd;
  std::unordered_map<int32_t, std::string> _watches;
  std::vector<char> _event_buffer;
  filter_type _filter;
  unsigned long _empty_message_size;
  cdl::log* _log;
  bool _monitor_initialised = false;  // a descriptor is open and must be closed
  std::atomic<unsigned long> _queue_overflows{0};
  // During the start-up scan: the at-start tasks not pushed yet.
  std::vector<cdl::task_ptr<cdl::task>>* _held_tasks = nullptr;
};

}  // namespace csl
