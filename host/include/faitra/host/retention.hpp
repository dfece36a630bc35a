// Retention by age: captures are kept for at most a given age (--max-age).
//
// check() runs the library's age cleanup of files (marker `cleanup`, through
// the storage's queue) with the cut-off now − max age, in seconds on the
// creation timestamp's clock, when some catalogued capture not yet marked
// was created at or before it; otherwise it only counts the check. The
// daemon calls it at start and every CHECK_PERIOD. Each run is logged with
// the number of captures it concerns and the cut-off.
//
// Thread-safety: check() from one thread at a time; sample() from any.
#pragma once

#include <csl/fs_cache.hpp>
#include <csl/fs_cleaner.hpp>

#include <cdl/log.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>

namespace faitra_host {

class age_retention {
 public:
  static constexpr std::chrono::seconds CHECK_PERIOD{60};

  struct stats {
    unsigned long checks = 0;
    unsigned long runs = 0;     // age cleanups started
    unsigned long marked = 0;   // captures they concerned
    unsigned long last_cutoff = 0;  // seconds; 0 before the first check
  };

  age_retention(uint64_t max_age_ns, csl::fs_cleaner& cleaner, std::shared_ptr<csl::fs_cache> cache,
                cdl::log* log);

  void check(uint64_t now_ns);
  uint64_t max_age_ns() const { return _max_age_ns; }
  stats sample() const;

 private:
  const uint64_t _max_age_ns;
  csl::fs_cleaner& _cleaner;
  std::shared_ptr<csl::fs_cache> _cache;
  cdl::log* _log;
  std::atomic<unsigned long> _checks{0};
  std::atomic<unsigned long> _runs{0};
  std::atomic<unsigned long> _marked{0};
  std::atomic<unsigned long> _last_cutoff{0};
};

}  // namespace faitra_host
