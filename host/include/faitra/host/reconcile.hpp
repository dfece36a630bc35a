// Reconcile: repairs the catalogue where it drifted from the directories.
//
// inotify cannot tell the tracker everything: files changed between the
// start-up scan and the start of watching, events dropped when the kernel's
// queue overflows, a rename over a catalogued name (reported as a create of
// a name that already exists, which the tracker refuses), a file moved out
// of a watched directory (reported as a create). A reconcile finds and
// repairs what the catalogue got wrong.
//
// One run, in two phases:
//  1. On the reconciler's own thread: scan the watched directories afresh
//     with a reader of its own into a scratch catalogue (a file whose
//     attributes cannot be parsed is left out and reported, as at start),
//     and compare it with a copy of the live catalogue. Nothing differs: the
//     run ends here.
//  2. After a short settling pause (so that inotify events that happened
//     before the scan have reached the tracker's queue), a reconcile task
//     goes onto the tracker's own channel, behind those events. Its handler
//     re-reads each differing file and compares it with the catalogue as it
//     is now; only a difference that still holds is repaired:
//       on disk, not catalogued       -> insert (added), once the file has
//                                        not been modified for
//                                        QUIET_SECONDS (a capture still
//                                        being written is left to the
//                                        tracker and counted as deferred);
//       catalogued, gone from disk    -> remove (removed);
//       metadata differs              -> update (updated), keeping the
//                                        catalogued record's deletion marker.
// Running on the tracker's channel, repairs never interleave with the
// tracker's own handlers.
//
// Runs happen every interval (0: never by themselves), on request, and at
// once when the tracker reports that the kernel's event queue overflowed
// (looked at every OVERFLOW_POLL); such a run that had to defer files is
// followed by another once they have been quiet for QUIET_SECONDS.
//
// Lifetime: the handler is registered on the tracker's listener group in
// the constructor; call stop() before the group is destroyed, and destroy
// the reconciler only after it.
//
// Thread-safety: request() and last() may be called from any thread.
#pragma once

#include <faitra/host/capture_filter.hpp>
#include <faitra/host/metrics.hpp>

#include <csl/fs_cache.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/log.hpp>
#include <cdl/task_ptr.hpp>
#include <cdl/task_system.hpp>

#include <chrono>
#include <functional>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace faitra_host {

struct reconcile_result {
  unsigned long added = 0;
  unsigned long removed = 0;
  unsigned long updated = 0;
  unsigned long deferred = 0;            // new files left for later: still being written
  std::vector<scan_problem> problems;    // files the scan had to leave out
  long finished_at = 0;                  // Unix time, seconds
};

// The task that carries phase 2 of a run onto the tracker's channel.
class reconcile_task : public cdl::task {
 public:
  reconcile_task(std::vector<std::string> paths, std::shared_ptr<std::promise<reconcile_result>> done)
      : cdl::task(static_cast<unsigned long>(-1)), paths(std::move(paths)), done(std::move(done)) {}
  ~reconcile_task() override;
  const cdl::task_type& type() const override;
  const std::string& name() const override;
  static const std::string& name_static();

  std::vector<std::string> paths;  // full paths whose catalogue state differed from the disk
  std::shared_ptr<std::promise<reconcile_result>> done;
};

// Lends a record read from the disk the metadata the host keeps for it in
// memory (derived values a file could not store).
using record_overlay = std::function<void(csl::fs_entry&)>;

// Scans `dirs` into a new catalogue as the start-up scan would: a file
// whose attributes cannot be parsed is catalogued with those treated as
// absent (and reported in `problems`); `overlay`, if set, is applied to
// every record without a full set of metadata.
std::unique_ptr<csl::fs_cache> scan_directories(const std::set<std::string>& dirs,
                                                const std::vector<std::string>& suffixes,
                                                std::vector<scan_problem>& problems,
                                                const record_overlay& overlay = {});

// The paths whose records differ between the two catalogues, in path order:
// present in only one, or with different metadata (hash, timestamps, size).
std::vector<std::string> differing_paths(const csl::fs_cache& catalogue, const csl::fs_cache& disk);

// Whether two records of one path say the same about the file.
bool same_metadata(const csl::fs_entry& a, const csl::fs_entry& b);

class reconciler {
 public:
  static constexpr long QUIET_SECONDS = 5;
  static constexpr std::chrono::milliseconds SETTLE_PAUSE{250};
  static constexpr std::chrono::milliseconds OVERFLOW_POLL{100};

  reconciler(std::shared_ptr<csl::fs_cache> cache, csl::fs_tracker& tracker, cdl::task_listener_group& group,
             std::vector<std::string> suffixes, std::chrono::seconds interval, daemon_counters& counters,
             cdl::log* log);
  ~reconciler();
  reconciler(const reconciler&) = delete;
  reconciler& operator=(const reconciler&) = delete;

  // Problems already reported elsewhere (by the start-up scan) are not
  // logged again.
  void already_reported(const std::vector<scan_problem>& problems);
  // Before start(): the host's in-memory metadata, and where to send a
  // capture the reconcile catalogued without a key.
  void derive_with(record_overlay overlay, std::function<void(const std::string&)> unattributed);

  // Starts the thread; the first run happens at once (it covers the gap
  // between the start-up scan and the start of watching).
  void start();
  // Ends the thread; a request waiting for a run gets nothing.
  void stop();

  // Asks for a run that starts after this call and waits up to `timeout`
  // for its result.
  std::optional<reconcile_result> request(std::chrono::milliseconds timeout);
  // The result of the last completed run, if any.
  std::optional<reconcile_result> last() const;

  // Phase 2, on the tracker's channel.
  void handle(cdl::task_ptr<reconcile_task>& task);

 private:
  void thread_body();
  reconcile_result run_once();
  // Brings one path's catalogue record in line with the file; counts into
  // `result`.
  void repair(const std::string& path, reconcile_result& result);

  std::shared_ptr<csl::fs_cache> _cache;
  csl::fs_tracker& _tracker;
  cdl::task_listener_group& _group;
  std::vector<std::string> _suffixes;
  std::chrono::seconds _interval;
  daemon_counters& _counters;
  cdl::log* _log;

  mutable std::mutex _mutex;
  std::condition_variable _cv;
  bool _stopping = false;
  unsigned long _requested = 0;  // generation asked for
  unsigned long _completed = 0;  // generation of the last completed run
  unsigned long _last_generation = 0;  // generation of the run `_last` describes
  std::optional<reconcile_result> _last;
  std::set<std::string> _reported;  // problem names already logged
  record_overlay _overlay;
  std::function<void(const std::string&)> _unattributed;
  std::thread _thread;
};

}  // namespace faitra_host
