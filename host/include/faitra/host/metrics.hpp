// The daemon's own counters and their Prometheus text form.
//
// The library keeps no statistics, so the daemon derives them from what it
// can observe through the public interfaces (see docs/api.md):
//  - a completed cleanup run: the cleaner asks the host to refresh its disk
//    figures once before it decides and once more after it removed its
//    files; only the second request happens while cleanup_in_progress() is
//    true, so each such request is one completed run;
//  - a deleted capture: a handler on the tracker's channel runs before the
//    tracker's own deleted handler and looks the record up while it is still
//    catalogued; its deletion marker says who deleted it (a request, a
//    cleanup, or nobody: removed by someone else);
//  - drift repaired: counted by the reconcile as it repairs;
//  - metadata derived from packets: counted by the deriver;
//  - inotify queue overflows: the tracker counts the kernel's overflow
//    events; the reconcile adds each new one here as it starts a run for it;
//  - the hard limit, the retention by age and the holds count what they do;
//  - the catalogue export's state, when there is one (export_status.hpp).
//
// Thread-safety: counters are atomics; render_metrics is pure.
#pragma once

#include <faitra/host/export_status.hpp>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

namespace faitra_host {

struct daemon_counters {
  std::atomic<unsigned long> cleanup_runs{0};
  std::atomic<unsigned long> deleted_requested{0};
  std::atomic<unsigned long> deleted_cleanup{0};
  std::atomic<unsigned long> removed_externally{0};
  std::atomic<unsigned long> metadata_cleanup_failures{0};
  std::atomic<unsigned long> reconcile_runs{0};
  std::atomic<unsigned long> drift_added{0};
  std::atomic<unsigned long> drift_removed{0};
  std::atomic<unsigned long> drift_updated{0};
  std::atomic<unsigned long> queue_overflows{0};
};

// One consistent sample of everything /metrics reports.
struct metrics_sample {
  unsigned long captures = 0;
  unsigned long disk_used = 0;
  unsigned long disk_total = 0;
  bool cleanup_in_progress = false;
  unsigned long delete_queue = 0;
  unsigned long scan_problems = 0;
  unsigned long handler_failures = 0;
  unsigned long cleanup_runs = 0;
  unsigned long deleted_requested = 0;
  unsigned long deleted_cleanup = 0;
  unsigned long removed_externally = 0;
  unsigned long metadata_cleanup_failures = 0;
  unsigned long reconcile_runs = 0;
  unsigned long drift_added = 0;
  unsigned long drift_removed = 0;
  unsigned long drift_updated = 0;
  // The retention window: first-packet times (nanoseconds) of the oldest and
  // the newest capture; empty without dated captures.
  std::optional<unsigned long> oldest_start;
  std::optional<unsigned long> newest_start;
  unsigned long derived = 0;
  unsigned long derive_bytes_read = 0;
  unsigned long derive_failures = 0;
  unsigned long derive_queue = 0;
  unsigned long queue_overflows = 0;
  unsigned long hard_limit_episodes = 0;
  unsigned long hard_limit_deleted = 0;
  unsigned long max_age_runs = 0;
  unsigned long max_age_deleted = 0;
  unsigned long holds = 0;
  unsigned long held_captures = 0;
  unsigned long held_bytes = 0;
  std::optional<export_status> catalogue_export;  // when the daemon exports its catalogue
};

// Copies the counters into `sample` (the gauges are left as they are).
void copy_counters(const daemon_counters& counters, metrics_sample& sample);

// One capture root's sample.
struct root_sample {
  std::string root;
  metrics_sample sample;
};

// The Prometheus text exposition (format 0.0.4) of `sample`.
std::string render_metrics(const metrics_sample& sample);
// The same for several roots: each family once, with a sample per root
// labelled root="DIR" when there are several (one root: no label, as above).
// The export's series are the first root's.
std::string render_metrics(const std::vector<root_sample>& samples);

}  // namespace faitra_host
