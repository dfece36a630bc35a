// The hard ceiling on the capture file system's usage: a disk that never
// fills while the writer's pace allows it.
//
// The automatic cleanup waits 15 s before and after each run, by design; a
// fast writer can fill a small disk in that time. This guard runs beside
// it, on its own thread. It samples usage (the storage's figures, as the
// cleaner reads them) whenever poke() says a capture arrived, and on a
// timer whose period shrinks as usage nears the ceiling at the rate it is
// rising (between MIN_PERIOD and MAX_PERIOD). What the writer adds in LEAD
// at that rate (averaged over RATE_WINDOW, at most the head room above the
// ceiling) counts as written already, so that a fast writer does not fill
// the head room while a deletion is under way. At or above the ceiling so
// counted, it marks the oldest captures by creation time at once, through the storage's
// own deletion (marker `cleanup`; a record someone else marked is skipped,
// and each is marked once whoever competes; a record whose file is already
// gone is skipped), until the bytes it marked
// cover the excess; it waits until those files are gone and samples again,
// until usage is under the ceiling. Captures for which `skip` is true (held
// ones, whose bytes a removal would not free) are left alone.
//
// Each episode (from crossing the ceiling to being back under it) is
// logged, with the captures it deleted; counters and the highest fraction
// seen are kept for the status and the metrics.
//
// Thread-safety: poke() and the accessors from any thread; `skip` is
// called on the guard's thread without the catalogue's lock held.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_storage.hpp>

#include <cdl/log.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace faitra_host {

class hard_limit_guard {
 public:
  using skip_type = std::function<std::set<std::string>()>;  // paths to leave alone, sampled per pass

  static constexpr std::chrono::milliseconds MIN_PERIOD{1};
  static constexpr std::chrono::milliseconds MAX_PERIOD{100};
  static constexpr std::chrono::milliseconds LEAD{50};
  static constexpr std::chrono::milliseconds RATE_WINDOW{200};
  // How long one pass waits for the files it marked to disappear.
  static constexpr std::chrono::milliseconds REMOVAL_WAIT{2000};

  struct stats {
    unsigned long episodes = 0;  // times usage crossed the ceiling
    unsigned long deleted = 0;   // captures this guard marked
    unsigned long deleted_bytes = 0;
    double highest = 0;          // highest fraction sampled
  };

  hard_limit_guard(double ceiling, std::shared_ptr<csl::fs_storage> storage, skip_type skip, cdl::log* log);
  ~hard_limit_guard();
  hard_limit_guard(const hard_limit_guard&) = delete;
  hard_limit_guard& operator=(const hard_limit_guard&) = delete;

  // Samples at once (a capture arrived).
  void poke();
  void stop();

  double ceiling() const { return _ceiling; }
  stats sample() const;

 private:
  void thread_body();
  // One pass: true when it marked something (sample again soon).
  bool enforce(unsigned long used, unsigned long total, unsigned long lead, double rate);
  void wait_gone(const std::vector<std::string>& paths);

  const double _ceiling;
  std::shared_ptr<csl::fs_storage> _storage;
  skip_type _skip;
  cdl::log* _log;
  std::atomic<unsigned long> _episodes{0};
  std::atomic<unsigned long> _deleted{0};
  std::atomic<unsigned long> _deleted_bytes{0};
  std::atomic<double> _highest{0};
  bool _in_episode = false;  // guard thread only
  unsigned long _episode_deleted = 0;
  bool _starved = false;  // nothing left to delete was logged in this episode
  std::mutex _mutex;
  std::condition_variable _cv;
  bool _poked = false;
  bool _stopping = false;
  std::thread _thread;
};

}  // namespace faitra_host
