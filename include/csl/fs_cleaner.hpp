// csl::fs_cleaner: keeps the capture file system below a usage ceiling and
// runs on-demand age and metadata cleanups.
//
// Automatic cleanup: every new capture (an fs_entry_created task on the
// producers' channels) samples usage with one statvfs; at or above the
// trigger fraction, with no cleanup running and a non-empty catalogue, one
// fs_cleanup_task goes to the cleaner's own single worker. A run asks the
// host to refresh its disk figures, waits 15 s, samples again, marks the
// oldest captures by creation time (marker `cleanup`) until the estimated
// usage falls below the stop fraction, cleans the metadata of the time range
// they cover through the host callback, then unlinks the files itself, one
// by one, and refreshes and samples again (another 15 s) for its summary.
// One check runs right after construction. Fractions are of one (0.9 = 90%).
//
// Deliberate behaviours, kept for compatibility:
//  - the size of a record that someone else already marked is still
//    subtracted from the estimate, without clamping at zero;
//  - the metadata range runs from the start timestamp of the oldest selected
//    capture to that of the oldest surviving one;
//  - the age cleanup's cut-off is absolute, in seconds of the capture clock,
//    compared with creation_ts; its metadata step runs first and ignores the
//    automatic-metadata switch; its files go through the storage's queue.
//
// Lifetime: destroy the cleaner only after the producers' worker group is
// gone (its handler is registered there). The destructor sets a stop flag
// that a running cleanup sees between files, then waits for that run.
//
// Thread-safety: cleanup runs never overlap (one worker). The created
// handler runs on the producers' thread; the on-demand calls on the caller's
// thread, concurrently with a run; each record is marked at most once.
#pragma once

#include <csl/fs_events.hpp>
#include <csl/fs_storage.hpp>

#include <cdl/log.hpp>
#include <cdl/nullable.hpp>
#include <cdl/task_system.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace csl {

// The task that asks the cleaner's worker for one cleanup run.
class fs_cleanup_task : public cdl::task {
 public:
  fs_cleanup_task() : cdl::task(static_cast<unsigned long>(-1)) {}
  ~fs_cleanup_task() override;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();
};

struct age_cleanup_state {
  enum cleanup_mode : int32_t {
    files = 0,     // capture files only
    metadata = 1,  // associated metadata only
    both = 2,      // files and metadata
    disabled = 3,  // no age cleanup; not accepted by start_age_cleanup
  };
};

// Human-readable size in multiples of 1024 ("%lu B", "%0.2f KB",
// "%0.2f  MB" with two spaces, kept for existing log parsers, "%0.2f GB").
std::string bytes_to_metric(unsigned long bytes);

class fs_cleaner {
 public:
  // Deletes metadata of the closed nanosecond range; null on success, else
  // an error text.
  using metadata_cleanup_type = std::function<cdl::nullable<std::string>(unsigned long, unsigned long)>;
  using reset_disk_cache_type = std::function<bool()>;

  // Seconds the cleaner waits after asking the host to refresh its figures.
  static constexpr unsigned int DISK_CACHE_SETTLE_SECONDS = 15;

  fs_cleaner(cdl::core& core, cdl::task_listener_group& producers, std::shared_ptr<fs_storage> storage,
             metadata_cleanup_type metadata_cleanup_callback, bool enabled, reset_disk_cache_type reset_disk_cache,
             float trigger, float stop, bool verbose, cdl::log* log);
  virtual ~fs_cleaner();
  fs_cleaner(const fs_cleaner&) = delete;
  fs_cleaner& operator=(const fs_cleaner&) = delete;

  void handle(cdl::task_ptr<fs_entry_created>& task);
  void handle(cdl::task_ptr<fs_cleanup_task>& task);
  void handle_stop() {}

  void select_pcaps_for_deletion(std::vector<fs_entry>& out, cdl::nullable<unsigned long>& start,
                                 cdl::nullable<unsigned long>& end);

  void read_disk_usage(bool reset_cache);
  static float disk_usage_percent(unsigned long used, unsigned long total);
  bool should_start_cleanup();
  bool should_continue_cleanup(unsigned long est_disk_usage, unsigned long est_disk_total);

  void start_age_cleanup(age_cleanup_state::cleanup_mode mode, unsigned long cutoff);
  void start_metadata_cleanup(cdl::nullable<unsigned long> start, cdl::nullable<unsigned long> end, bool automatic);
  void switch_metadata_cleanup(bool enabled);

  bool cleanup_in_progress() const { return _cleanup_in_progress.load(); }
  bool metadata_cleanup_enabled() const { return _metadata_cleanup_enabled.load(); }
  unsigned long disk_usage() const { return _disk_usage.load(); }
  unsigned long disk_total() const { return _disk_total.load(); }
  float trigger() const { return _trigger; }
  float stop() const { return _stop; }

 private:
  void run_cleanup();
  void push_cleanup_task();

  std::shared_ptr<fs_storage> _storage;
  metadata_cleanup_type _metadata_cleanup_callback;
  std::atomic<bool> _metadata_cleanup_enabled;
  // Held by pointer so the destructor can end a running cleanup before the
  // members that cleanup uses are destroyed.
  std::unique_ptr<cdl::worker_group> _worker_group;
  std::unique_ptr<cdl::task_listener_group> _listener_group;
  std::atomic<bool> _cleanup_in_progress;
  std::atomic<bool> _stop_requested;
  // Written by the producers' thread and the cleaner's worker; last writer
  // wins. Atomic only so that the two never race on the bytes.
  std::atomic<unsigned long> _disk_usage{0};
  std::atomic<unsigned long> _disk_total{0};
  std::vector<fs_entry> _candidates;
  reset_disk_cache_type _reset_disk_cache;
  float _trigger;
  float _stop;
  bool _verbose;
  cdl::log* _log;
};

}  // namespace csl
