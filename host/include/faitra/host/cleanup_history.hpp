// The last automatic cleanup runs of one root, for the operator: when each
// ran, the usage before and after, how many captures it deleted, and what
// failed.
//
// The library reports a run only through fs_cleaner::cleanup_in_progress(),
// so a thread of its own samples that flag (every POLL_INTERVAL; a run lasts
// at least the cleaner's 15-second pause) and opens a run when it rises and
// closes it when it falls. Figures, read from the cleaner and the daemon's
// counters:
//  - before: the usage the cleaner decided on (its last sample when the run
//    opened); after: its sample at the end of the run, taken after its
//    second refresh and pause;
//  - deleted: captures marked `cleanup` whose removal the catalogue saw while
//    the run was open (an age cleanup of files running at the same time
//    counts there too);
//  - failures: the metadata command and the disk-figure refresh failing
//    inside the run, reported by the daemon through note_failure().
// A run that is open when the history stops is not kept.
//
// Thread-safety: every member may be called from any thread; stop() before
// the cleaner is destroyed.
#pragma once

#include <faitra/host/metrics.hpp>

#include <csl/fs_cleaner.hpp>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace faitra_host {

struct cleanup_run {
  long started_at = 0;   // seconds since the epoch
  long finished_at = 0;  // 0 while running
  unsigned long used_before = 0;
  unsigned long used_after = 0;
  unsigned long total = 0;
  unsigned long deleted = 0;
  unsigned long failures = 0;
  std::string last_failure;  // empty without failures
};

class cleanup_history {
 public:
  static constexpr size_t KEPT_RUNS = 16;
  static constexpr std::chrono::milliseconds POLL_INTERVAL{100};

  cleanup_history(const csl::fs_cleaner& cleaner, const daemon_counters& counters);
  ~cleanup_history();
  cleanup_history(const cleanup_history&) = delete;
  cleanup_history& operator=(const cleanup_history&) = delete;

  void stop();

  // Records a failure inside the current run; ignored outside one.
  void note_failure(const std::string& what);

  // The finished runs, newest first, then the one in progress (if any) first
  // of all.
  std::vector<cleanup_run> runs() const;

 private:
  void thread_body();
  void sample_locked();

  const csl::fs_cleaner& _cleaner;
  const daemon_counters& _counters;
  mutable std::mutex _mutex;
  std::condition_variable _cv;
  bool _stopping = false;
  std::optional<cleanup_run> _open;
  unsigned long _deleted_at_open = 0;
  std::deque<cleanup_run> _finished;  // newest first
  std::thread _thread;
};

}  // namespace faitra_host
