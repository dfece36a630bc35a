// The faitra daemon: the library's components wired the way the library
// requires, plus what the host adds (commands, counters, reconcile,
// background jobs).
//
// Construction order: the tracker's worker and listener groups; the
// catalogue export, when asked for (first on the channel, so that its
// handlers run last); the catalogue and the tracker, monitoring on
// (build_catalogue, which survives captures with malformed attributes); the
// storage; the cleaner; the reconcile; the hold registry (holds loaded from
// the hold directory); the runtime's start callbacks (the storage's delete
// thread); the job, reconcile and export threads; the cleanup history's
// thread; the hard-limit guard, the retention by age and the holds' upkeep
// (expiry, windows that take new captures).
//
// shutdown() (also run by the destructor) goes the other way, in the order
// the library requires: the cleanup history, the hard-limit guard, the
// retention and the holds' upkeep; background jobs (running commands are
// killed) and the reconcile thread; the runtime's stop callbacks (the delete thread is
// joined); the tracker's monitoring; the tracker's listener group and
// worker group (no handler can run after that); the export (one last flush
// of its queued changes, up to EXPORT_FLUSH); then the cleaner (which
// waits for a running cleanup, possibly inside its 15-second pause), the
// storage, the tracker and the catalogue. The HTTP server must be stopped
// before.
//
// Thread-safety: the accessors and the operations below may be called from
// the HTTP server's threads until shutdown() begins.
#pragma once

#include <faitra/host/capture_filter.hpp>
#include <faitra/host/cleanup_history.hpp>
#include <faitra/host/catalogue_export.hpp>
#include <faitra/host/daemon_command.hpp>
#include <faitra/host/link_watcher.hpp>
#include <faitra/host/metadata_deriver.hpp>
#include <faitra/host/hard_limit.hpp>
#include <faitra/host/holds.hpp>
#include <faitra/host/metrics.hpp>
#include <faitra/host/periodic.hpp>
#include <faitra/host/reconcile.hpp>
#include <faitra/host/retention.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_cleaner.hpp>
#include <csl/fs_storage.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/nullable.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace faitra_host {

struct daemon_options {
  std::string root;
  std::set<std::string> watch;  // empty: the root
  float trigger = 0.9F;
  float stop = 0.8F;
  bool auto_cleanup = true;
  std::vector<std::string> suffixes{".pcap", ".pcapng"};
  std::string metadata_cleanup_cmd;  // empty: nothing to clean, success
  std::string reset_disk_cache_cmd;  // empty: nothing to refresh, success
  bool log_stdout = false;
  cdl::log_priority::value log_level = cdl::log_priority::info;
  bool verbose = false;
  std::chrono::seconds reconcile_interval{60};
  bool derive_metadata = true;  // derive what writers left out, from the packets
  // Captures created longer ago than this are deleted (checked at start and
  // every minute); none: no limit by age.
  std::optional<uint64_t> max_age_ns;
  // Fraction in use at which the oldest captures are deleted at once. None:
  // DEFAULT_HARD_LIMIT while the automatic cleanup is on and its trigger is
  // below that, otherwise off; 0: off. Must lie above the trigger (when the
  // automatic cleanup is on) and below 1.
  std::optional<double> hard_limit;
  // Where held captures are linked; empty: ROOT/.faitra-holds.
  std::string hold_dir;
  std::optional<export_options> export_to;  // keep a central PostgreSQL table in step
  // Added to the names of the root's logs, so that the lines of several
  // roots in one daemon tell whose they are; empty: none.
  std::string log_label;
};

// Absolute, without "." and "..", without a trailing slash; symbolic links
// are kept as they are (the catalogue names files by these paths).
std::string normal_directory(const std::string& dir);

constexpr double DEFAULT_HARD_LIMIT = 0.97;
// How often the holds' expiry and followed windows are looked at.
constexpr std::chrono::seconds HOLD_UPKEEP_PERIOD{10};

// One thread that runs accepted jobs (age and metadata cleanups) in order.
class job_runner {
 public:
  static constexpr size_t MAX_QUEUED = 16;

  explicit job_runner(cdl::log* log);
  ~job_runner();
  job_runner(const job_runner&) = delete;
  job_runner& operator=(const job_runner&) = delete;

  // Queues `job`; false when the queue is full or the runner is stopping.
  bool submit(std::string name, std::function<void()> job);
  // Drops queued jobs, waits for the running one and ends the thread.
  void stop();

 private:
  void thread_body();

  cdl::log* _log;
  std::mutex _mutex;
  std::condition_variable _cv;
  std::deque<std::pair<std::string, std::function<void()>>> _queue;
  bool _stopping = false;
  std::thread _thread;
};

class capture_daemon {
 public:
  static constexpr std::chrono::seconds EXPORT_FLUSH{5};

  // Builds and starts everything; raises (with a readable message) when the
  // directories cannot be scanned or the options are unusable.
  explicit capture_daemon(daemon_options options);
  ~capture_daemon();
  capture_daemon(const capture_daemon&) = delete;
  capture_daemon& operator=(const capture_daemon&) = delete;

  void shutdown();

  const daemon_options& options() const { return _options; }
  cdl::log* log() { return _log.get(); }
  csl::fs_cache& cache() { return *_cache; }
  csl::fs_storage& storage() { return *_storage; }
  csl::fs_cleaner& cleaner() { return *_cleaner; }
  reconciler& reconcile() { return *_reconciler; }
  // Null when derivation is off.
  const metadata_deriver* deriver() const { return _deriver.get(); }
  hold_registry& holds() { return *_holds; }
  // Null when off.
  const hard_limit_guard* hard_limit() const { return _hard_limit.get(); }
  const age_retention* retention() const { return _retention.get(); }
  // The export, or nullptr when the options asked for none.
  const catalogue_export* exporter() const { return _export.get(); }
  job_runner& jobs() { return *_jobs; }
  const cleanup_history& history() const { return *_history; }
  const daemon_counters& counters() const { return _counters; }
  std::vector<scan_problem> scan_problems() const { return _filter.problems(); }
  metrics_sample sample_metrics();

 private:
  cdl::nullable<std::string> clean_metadata(unsigned long start, unsigned long end);
  bool reset_disk_cache();
  void count_deletion(cdl::task_ptr<csl::fs_entry_deleted>& task);
  void capture_arrived(cdl::task_ptr<csl::fs_entry_created>& task);
  void start_guards();
  void destroy_cleaner();

  daemon_options _options;
  std::unique_ptr<cdl::log> _log;
  std::unique_ptr<cdl::log> _tracker_log;
  std::unique_ptr<cdl::log> _storage_log;
  std::unique_ptr<cdl::log> _cleaner_log;
  std::unique_ptr<cdl::core> _core;
  cdl::runtime _runtime;
  daemon_counters _counters;
  capture_filter _filter;
  std::unique_ptr<command_runner> _metadata_command;       // for the automatic cleanup
  std::unique_ptr<command_runner> _metadata_command_jobs;  // for on-demand cleanups
  std::unique_ptr<command_runner> _reset_command;

  std::unique_ptr<cdl::worker_group> _tracker_workers;
  std::unique_ptr<cdl::task_listener_group> _tracker_listeners;
  std::shared_ptr<csl::fs_cache> _cache;
  std::shared_ptr<csl::fs_tracker> _tracker;
  std::shared_ptr<csl::fs_storage> _storage;
  std::unique_ptr<csl::fs_cleaner> _cleaner;
  std::atomic<csl::fs_cleaner*> _cleaner_seen{nullptr};  // for the reset callback
  std::atomic<long> _last_reset_request{std::numeric_limits<long>::min() / 2};  // steady seconds
  std::unique_ptr<reconciler> _reconciler;
  std::unique_ptr<metadata_deriver> _deriver;  // outlives the tracker's listener group
  std::unique_ptr<link_watcher> _links;        // stops before the tracker's listener group
  std::unique_ptr<catalogue_export> _export;
  std::unique_ptr<job_runner> _jobs;
  std::unique_ptr<cleanup_history> _history;
  std::atomic<cleanup_history*> _history_seen{nullptr};  // for the cleaner's callbacks
  std::unique_ptr<hold_registry> _holds;
  std::unique_ptr<hard_limit_guard> _hard_limit;
  std::unique_ptr<age_retention> _retention;
  std::unique_ptr<periodic_thread> _retention_thread;
  std::unique_ptr<periodic_thread> _hold_upkeep;
  bool _shut_down = false;
};

// The version of the faitra command.
const char* faitra_version();

}  // namespace faitra_host
