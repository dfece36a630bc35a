// csl::fs_storage: on-demand deletion of captures and the disk figures of
// the capture file system.
//
// Deletion by path, by time range (start or creation timestamp, closed
// range) or of everything marks records in the catalogue with one
// compare-exchange of their marker from `none` and queues copies of the
// records it marked; the storage's delete thread unlinks the queued files
// one at a time with no lock held. The storage never erases records: the
// tracker does when inotify reports the removal, so a record stays in the
// catalogue, marked, until then. A record is marked, queued and deleted at
// most once, whoever competes for it (other callers, the cleaner).
//
// The delete thread runs between the runtime's start and stop callbacks;
// records still queued at stop stay queued and marked. A file that cannot be
// removed is logged and not retried.
//
// state() reads statvfs on the first watched path: total = f_bsize x
// f_blocks, used = total - f_bsize x f_bfree (blocks free to the
// super-user), kept so for compatibility with existing dashboards.
//
// Thread-safety: every operation may be called from any thread. Lock order:
// the catalogue's lock (shared) first, then the queue mutex, never the
// reverse; the delete thread takes only the queue mutex.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_entry.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/json_object.hpp>
#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

namespace csl {

class fs_storage {
 public:
  // Used and total bytes of the capture file system.
  class state : public cdl::json_object {
   public:
    void from_json(const rapidjson::Document& doc, cdl::validation_error_list& errors,
                   cdl::api_version_t<int> version, cdl::print_type_t<int> print, cdl::field_specs rules) override;
    // {"disk_space": {"used": <used>, "total": <total>}}
    void to_json(cdl::json_writer& writer, cdl::api_version_t<int> version,
                 cdl::print_type_t<int> print) const override;

    unsigned long used = 0;
    unsigned long total = 0;
  };

  // A shared (read) lock on the catalogue for the guard's lifetime.
  class shared_guard {
   public:
    explicit shared_guard(const fs_storage& storage);

   private:
    fs_cache::shared_guard _guard;
  };

  fs_storage(cdl::runtime& runtime, std::shared_ptr<fs_cache> cache, std::shared_ptr<fs_tracker> tracker,
             cdl::log* log);
  virtual ~fs_storage();
  fs_storage(const fs_storage&) = delete;
  fs_storage& operator=(const fs_storage&) = delete;

  void handle_start();
  void handle_stop();

  class state state() const;

  bool delete_by_path(const std::string& path, fs_entry::deletion_by by);
  bool delete_by_path(fs_entry& out, const std::string& path, fs_entry::deletion_by by);
  bool delete_by_time(unsigned long start, unsigned long end, bool by_start_ts, fs_entry::deletion_by by);
  bool delete_by_time(std::vector<fs_entry>& out, unsigned long start, unsigned long end, bool by_start_ts,
                      fs_entry::deletion_by by);
  size_t clear(fs_entry::deletion_by by);

  const fs_cache& cache() const { return *_cache; }
  fs_cache& cache_rw() { return *_cache; }

  // Number of records queued and not yet taken by the delete thread.
  size_t queued() const;

 private:
  bool delete_by_path_impl(fs_entry* out, const std::string& path, fs_entry::deletion_by by);
  bool delete_by_time_impl(std::vector<fs_entry>* out, unsigned long start, unsigned long end, bool by_start_ts,
                           fs_entry::deletion_by by);
  // Marks `record` for `by`; true when this call marked it.
  bool mark(fs_entry& record, fs_entry::deletion_by by);
  void enqueue(std::vector<fs_entry>& records);
  void delete_thread();

  std::set<std::string> _paths;
  std::shared_ptr<fs_cache> _cache;
  std::shared_ptr<fs_tracker> _tracker;
  cdl::log* _log;
  mutable std::mutex _queue_mutex;
  std::deque<fs_entry> _delete_queue;
  std::thread _delete_thread;
  std::condition_variable _queue_cv;
  std::atomic<bool> _running{false};

  // Per-thread scratch of the records marked in one call, per storage.
  static thread_local std::unordered_map<fs_storage*, std::vector<fs_entry>> _tmp_vec;
};

}  // namespace csl
