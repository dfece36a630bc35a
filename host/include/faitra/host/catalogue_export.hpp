// The catalogue export: keeps this sensor's rows in a central PostgreSQL
// table (catalogue_schema.hpp) in step with the catalogue.
//
// What it observes, through the library's public interface only: handlers
// on the tracker's channel for created, updated and deleted captures, for
// the reconcile's repair task (whose paths are every record the reconcile
// looked at) and for the metadata deriver's result task. They are ordered
// `last` and registered before anyone else's `last` handlers (construct the
// export first), so they run after every handler that may change the
// record, the deriver's included. Each handler only notes the path in a
// bounded change_queue; the export's own thread looks the paths up in the
// catalogue and writes the rows.
//
// The thread: connects (and creates the tables if missing); then, on start
// and after every reconnect, a full resync in one transaction
// (catalogue_sync.hpp); then batches of live changes, each sent when it
// holds `batch_max` paths or its oldest change is `batch_interval` old. Any
// failure drops the connection and asks for a resync; reconnection is
// retried with a doubling pause up to `retry_max`. While the database is
// away the queue fills up to its capacity and then overflows into "resync
// needed" (see change_queue.hpp): memory stays bounded and no delete is
// lost.
//
// Lifetime: the handlers are registered in the constructor, on a listener
// group that must outlive every task it runs for this object: destroy (or
// stop) the group before the export. attach() the catalogue before start(). stop() ends the thread after one last
// flush of the queued changes, bounded by `flush_for`.
//
// Thread-safety: status() may be called from any thread; the handlers run
// on the tracker's channel; start() and stop() from the owner's thread.
#pragma once

#include <faitra/host/catalogue_sync.hpp>
#include <faitra/host/change_queue.hpp>
#include <faitra/host/export_status.hpp>
#include <faitra/host/metadata_deriver.hpp>
#include <faitra/host/pg_connection.hpp>
#include <faitra/host/reconcile.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_events.hpp>

#include <cdl/log.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace faitra_host {

struct export_options {
  std::string conninfo;       // postgresql:// URL or key=value words, without a password
  std::string password_file;  // empty: libpq's own (PGPASSFILE, ~/.pgpass)
  sensor_identity who;        // the root is the daemon's
  std::chrono::milliseconds batch_interval{200};
  size_t batch_max = 1000;
  size_t queue_capacity = 100000;
  std::chrono::milliseconds retry_min{250};
  std::chrono::milliseconds retry_max{10000};
};


class catalogue_export {
 public:
  // Raises std::invalid_argument for a connection string with a password
  // or an unusable sensor name.
  catalogue_export(export_options options, cdl::task_listener_group& group, cdl::log* log);
  ~catalogue_export();
  catalogue_export(const catalogue_export&) = delete;
  catalogue_export& operator=(const catalogue_export&) = delete;

  void attach(std::shared_ptr<csl::fs_cache> cache);
  void start();
  void stop(std::chrono::milliseconds flush_for = std::chrono::seconds(5));

  export_status status() const;

  void on_created(cdl::task_ptr<csl::fs_entry_created>& task);
  void on_updated(cdl::task_ptr<csl::fs_entry_updated>& task);
  void on_deleted(cdl::task_ptr<csl::fs_entry_deleted>& task);
  void on_reconciled(cdl::task_ptr<reconcile_task>& task);
  void on_derived(cdl::task_ptr<derived_task>& task);

 private:
  void thread_body();
  void connect();
  void resync(change_queue::clock::time_point since);
  void send(const change_queue::batch& batch);
  void flush_before_exit();
  void fail(const std::string& what, const std::exception& e);
  bool stopping() const { return _stopping.load(); }

  export_options _options;
  std::shared_ptr<csl::fs_cache> _cache;
  cdl::log* _log;
  change_queue _queue;
  std::unique_ptr<pg_connection> _db;  // the thread's own

  std::atomic<bool> _stopping{false};
  std::chrono::milliseconds _flush_for{0};
  std::mutex _wait_mutex;
  std::condition_variable _wait_cv;  // the pause between reconnections

  mutable std::mutex _status_mutex;
  export_status _status;
  std::optional<change_queue::clock::time_point> _in_flight;  // oldest change being written
  std::thread _thread;
};

}  // namespace faitra_host
