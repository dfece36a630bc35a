// A live catalogue for the benchmarks: a directory watched by an fs_tracker
// whose handlers run on one worker, torn down in the order the tracker
// requires (monitor first, then the task groups, then the tracker).
#pragma once

#include "bench_support.hpp"

#include <csl/fs_cache.hpp>
#include <csl/fs_tracker.hpp>

#include <cdl/task_system.hpp>

#include <memory>
#include <string>

namespace faitra_bench {

class tracker_env {
 public:
  explicit tracker_env(const std::string& dir)
      : _workers(std::make_unique<cdl::worker_group>(_core, cdl::worker_group_config{1, "bench tracker"})),
        _listeners(std::make_unique<cdl::task_listener_group>(*_workers)),
        _cache(std::make_shared<csl::fs_cache>()),
        _tracker(std::make_unique<csl::fs_tracker>(*_listeners, _cache, dir, std::set<std::string>{dir}, true,
                                                   is_capture_name, 0, nullptr)) {}
  ~tracker_env() {
    _tracker->stop_monitoring();
    _listeners.reset();
    _workers.reset();
    _tracker.reset();
  }
  tracker_env(const tracker_env&) = delete;
  tracker_env& operator=(const tracker_env&) = delete;

  csl::fs_cache& cache() { return *_cache; }
  cdl::task_channel& channel() { return _listeners->task_channel(0); }

 private:
  cdl::core _core;
  std::unique_ptr<cdl::worker_group> _workers;
  std::unique_ptr<cdl::task_listener_group> _listeners;
  std::shared_ptr<csl::fs_cache> _cache;
  std::unique_ptr<csl::fs_tracker> _tracker;
};

}  // namespace faitra_bench
