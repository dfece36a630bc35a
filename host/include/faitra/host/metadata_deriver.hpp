// metadata_deriver: gives captures whose writer set no attributes their
// key, start, end and creation time, from their packets.
//
// Where work comes from (all on the tracker's channel, after the tracker's
// own handlers):
//  - the start-up scan's "missing attributes" and "attributes but empty"
//    tasks (subscribed by the identity their objects report);
//  - a created or updated task whose catalogued record has no key: a file
//    closed after writing, renamed in, or copied with its attributes. The
//    attributes are read again first; when the file has them, the record
//    takes them at once and nothing is derived;
//  - submit(), for callers that found such a record elsewhere (the
//    reconcile, the start-up scan's malformed attributes).
//
// The work itself runs on one thread of its own, over a bounded queue
// (MAX_QUEUED paths, each queued once), so a 2 GB capture never delays the
// catalogue, the API or the cleanup. For each path: one pass over the file
// (capture_summary), then the absent attributes are written (never a value
// a writer set), the file's attributes are read again and the record is
// updated with the file's values where valid and the derived ones
// elsewhere; the update is a task on the tracker's channel, so it never
// interleaves with the tracker's handlers. A capture deleted meanwhile is
// dropped; a file that is no capture is logged once and left catalogued
// without times. Where the file system refuses user.* attributes the values
// are kept in memory (said once in the log) and overlay() lends them to the
// reconcile, which would otherwise undo them.
//
// Lifetime: construct before the tracker scans (so that the scan's tasks
// find their handlers), attach() the catalogue, then watch(); stop() before
// the tracker's listener group is destroyed and destroy it after.
//
// Thread-safety: submit(), overlay() and the counters may be used from any
// thread; handlers run on the tracker's channel.
#pragma once

#include <faitra/host/capture_attributes.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_events.hpp>

#include <cdl/log.hpp>
#include <cdl/task_ptr.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <cstdint>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>

namespace faitra_host {

struct derive_counters {
  std::atomic<unsigned long> derived{0};           // records updated from their packets
  std::atomic<unsigned long> bytes_read{0};        // bytes read to derive them
  std::atomic<unsigned long> failures{0};          // not a capture, unreadable, or no packet with a time
  std::atomic<unsigned long> attributes_read{0};   // records that found their attributes on the file
  std::atomic<unsigned long> memory_only{0};       // derived values kept in memory only
  std::atomic<unsigned long> dropped{0};           // not queued: the queue was full
};

// The task that brings a derivation's result onto the tracker's channel.
class derived_task : public cdl::task {
 public:
  derived_task(std::string path, attribute_values values, unsigned long size, bool read = false)
      : cdl::task(static_cast<unsigned long>(-1)),
        path(std::move(path)),
        values(std::move(values)),
        size(size),
        read(read) {}
  ~derived_task() override;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();

  std::string path;
  attribute_values values;
  unsigned long size;  // the file's size when it was read
  bool read;           // the values were on the file already (another name of it was derived first)
};

class metadata_deriver {
 public:
  static constexpr size_t MAX_QUEUED = 100000;

  metadata_deriver(cdl::task_listener_group& group, bool write_attributes, cdl::log* log);
  ~metadata_deriver();
  metadata_deriver(const metadata_deriver&) = delete;
  metadata_deriver& operator=(const metadata_deriver&) = delete;

  // The catalogue the results go to; starts the worker.
  void attach(std::shared_ptr<csl::fs_cache> cache);
  // Registers the created and updated handlers (after the tracker's).
  void watch();
  // Cancels the file being read and ends the thread; queued paths are
  // dropped.
  void stop();

  void submit(const std::string& path);
  // Sets, on a record read from the disk, the values kept in memory for
  // its path (when the file still has the size they were derived from).
  void overlay(csl::fs_entry& record) const;

  const derive_counters& counters() const { return _counters; }
  unsigned long queued() const;

  void handle_missing(cdl::task_ptr<csl::fs_entry_missing_xattr_at_init>& task);
  void handle_empty(cdl::task_ptr<csl::fs_entry_has_xattr_but_empty_at_init>& task);
  void handle_changed(cdl::task_ptr<csl::fs_entry_created>& task);
  void handle_updated(cdl::task_ptr<csl::fs_entry_updated>& task);
  void handle(cdl::task_ptr<derived_task>& task);

 private:
  // A catalogued record without a key: its attributes are read again, and
  // it is queued when the file has none.
  void reconsider(const std::string& path);
  void thread_body();
  void derive(const std::string& path);

  cdl::task_listener_group& _group;
  bool _write_attributes;
  cdl::log* _log;
  std::shared_ptr<csl::fs_cache> _cache;
  derive_counters _counters;

  mutable std::mutex _mutex;
  std::condition_variable _cv;
  std::deque<std::string> _queue;
  std::set<std::string> _queued;
  bool _stopping = false;
  std::atomic<bool> _cancel{false};
  bool _said_unsupported = false;
  bool _said_full = false;
  std::map<std::string, std::pair<unsigned long, attribute_values>> _in_memory;  // path -> (size, values)
  // Files found unusable, by path -> (size, modification time in ns): a file
  // offered again unchanged (a second start-up scan, another event) is not
  // read, logged or counted again. Touched by the deriver's thread only.
  std::map<std::string, std::pair<uint64_t, uint64_t>> _unusable;
  std::thread _thread;
};

}  // namespace faitra_host
