#include <faitra/host/metrics.hpp>

#include <cstdio>

namespace faitra_host {

namespace {

void family(std::string& out, const char* name, const char* type, const char* help) {
  out += "# HELP ";
  out += name;
  out += ' ';
  out += help;
  out += "\n# TYPE ";
  out += name;
  out += ' ';
  out += type;
  out += '\n';
}

void sample_line(std::string& out, const char* name, const char* labels, unsigned long value) {
  out += name;
  out += labels;
  out += ' ';
  out += std::to_string(value);
  out += '\n';
}

void single(std::string& out, const char* name, const char* type, const char* help, unsigned long value) {
  family(out, name, type, help);
  sample_line(out, name, "", value);
}

// Nanoseconds as seconds with their fraction; absent values give no sample,
// so that an empty catalogue does not report the epoch.
void seconds_gauge(std::string& out, const char* name, const char* help, std::optional<unsigned long> ns) {
  family(out, name, "gauge", help);
  if (!ns) return;
  char text[48];
  std::snprintf(text, sizeof text, " %lu.%09lu\n", *ns / 1000000000UL, *ns % 1000000000UL);
  out += name;
  out += text;
}

void gauge_line(std::string& out, const char* name, const char* type, const char* help, const std::string& labels,
                double value) {
  family(out, name, type, help);
  char text[64];
  std::snprintf(text, sizeof text, " %.6g\n", value);
  out += name;
  out += labels;
  out += text;
}

void render_export(std::string& out, const export_status& e) {
  const std::string labels = "{sensor=\"" + e.sensor + "\"}";
  const auto line = [&](const char* name, const char* type, const char* help, double value) {
    gauge_line(out, name, type, help, labels, value);
  };
  line("faitra_export_connected", "gauge", "1 while the catalogue export is connected to its database.",
       e.connected ? 1 : 0);
  line("faitra_export_lag_seconds", "gauge", "Age of the oldest catalogue change not yet in the central table.",
       e.lag_seconds);
  line("faitra_export_queue_depth", "gauge", "Catalogue changes queued for the central table.",
       static_cast<double>(e.queue_depth));
  line("faitra_export_queue_capacity", "gauge", "Changes the queue holds before it falls back to a resync.",
       static_cast<double>(e.queue_capacity));
  line("faitra_export_resync_needed", "gauge", "1 while a full resync is due and not yet begun.",
       e.resync_needed ? 1 : 0);
  line("faitra_export_last_resync_timestamp_seconds", "gauge", "Unix time of the last completed resync (0: none).",
       static_cast<double>(e.last_resync));
  line("faitra_export_resyncs_total", "counter", "Full resyncs completed.", static_cast<double>(e.resyncs));
  line("faitra_export_batches_total", "counter", "Batches of live changes written.", static_cast<double>(e.batches));
  line("faitra_export_failures_total", "counter", "Failed connections, resyncs and batches.",
       static_cast<double>(e.failures));
  line("faitra_export_overflows_total", "counter", "Times the change queue overflowed into a resync.",
       static_cast<double>(e.overflows));
}

}  // namespace

void copy_counters(const daemon_counters& c, metrics_sample& s) {
  s.cleanup_runs = c.cleanup_runs.load();
  s.deleted_requested = c.deleted_requested.load();
  s.deleted_cleanup = c.deleted_cleanup.load();
  s.removed_externally = c.removed_externally.load();
  s.metadata_cleanup_failures = c.metadata_cleanup_failures.load();
  s.reconcile_runs = c.reconcile_runs.load();
  s.drift_added = c.drift_added.load();
  s.drift_removed = c.drift_removed.load();
  s.drift_updated = c.drift_updated.load();
  s.queue_overflows = c.queue_overflows.load();
}

std::string render_metrics(const metrics_sample& s) {
  std::string out;
  single(out, "faitra_captures", "gauge", "Captures in the catalogue.", s.captures);
  single(out, "faitra_disk_used_bytes", "gauge", "Bytes in use on the capture file system.", s.disk_used);
  single(out, "faitra_disk_total_bytes", "gauge", "Size of the capture file system in bytes.", s.disk_total);
  single(out, "faitra_cleanup_in_progress", "gauge", "1 while an automatic cleanup run is removing captures.",
         s.cleanup_in_progress ? 1 : 0);
  single(out, "faitra_cleanup_runs_total", "counter", "Automatic cleanup runs completed.", s.cleanup_runs);
  family(out, "faitra_captures_deleted_total", "counter",
         "Captures whose removal the catalogue saw, by who marked them (request, cleanup) or none (external).");
  sample_line(out, "faitra_captures_deleted_total", "{reason=\"request\"}", s.deleted_requested);
  sample_line(out, "faitra_captures_deleted_total", "{reason=\"cleanup\"}", s.deleted_cleanup);
  sample_line(out, "faitra_captures_deleted_total", "{reason=\"external\"}", s.removed_externally);
  single(out, "faitra_delete_queue", "gauge", "Captures marked on request and waiting for the delete thread.",
         s.delete_queue);
  single(out, "faitra_metadata_cleanup_failures_total", "counter",
         "Metadata cleanup commands that failed.", s.metadata_cleanup_failures);
  single(out, "faitra_reconcile_runs_total", "counter", "Reconcile runs completed.", s.reconcile_runs);
  family(out, "faitra_drift_repaired_total", "counter",
         "Catalogue differences from the disk repaired by the reconcile, by kind.");
  sample_line(out, "faitra_drift_repaired_total", "{kind=\"added\"}", s.drift_added);
  sample_line(out, "faitra_drift_repaired_total", "{kind=\"removed\"}", s.drift_removed);
  sample_line(out, "faitra_drift_repaired_total", "{kind=\"updated\"}", s.drift_updated);
  single(out, "faitra_derived_total", "counter", "Captures whose metadata was derived from their packets.", s.derived);
  single(out, "faitra_derive_read_bytes_total", "counter", "Bytes read to derive capture metadata.",
         s.derive_bytes_read);
  single(out, "faitra_derive_failures_total", "counter",
         "Captures whose metadata could not be derived (not a capture, unreadable, no timed packet).",
         s.derive_failures);
  single(out, "faitra_derive_queue", "gauge", "Captures waiting for their metadata to be derived.", s.derive_queue);
  single(out, "faitra_inotify_overflows_total", "counter",
         "Times the kernel's inotify queue overflowed and file events were lost; each starts a reconcile.",
         s.queue_overflows);
  single(out, "faitra_hard_limit_episodes_total", "counter",
         "Times usage reached the hard limit and captures were deleted at once.", s.hard_limit_episodes);
  single(out, "faitra_hard_limit_deleted_total", "counter", "Captures the hard limit deleted.",
         s.hard_limit_deleted);
  single(out, "faitra_max_age_runs_total", "counter", "Age cleanups started by --max-age.", s.max_age_runs);
  single(out, "faitra_max_age_deleted_total", "counter", "Captures those age cleanups concerned.",
         s.max_age_deleted);
  single(out, "faitra_holds", "gauge", "Evidence holds in force.", s.holds);
  single(out, "faitra_held_captures", "gauge", "Captures kept by evidence holds.", s.held_captures);
  single(out, "faitra_held_bytes", "gauge", "Bytes of the distinct files kept by evidence holds.", s.held_bytes);
  single(out, "faitra_scan_problems", "gauge", "Files skipped by the start-up scan.", s.scan_problems);
  single(out, "faitra_handler_failures_total", "counter", "Exceptions that escaped a task handler.",
         s.handler_failures);
  seconds_gauge(out, "faitra_retention_oldest_start_seconds",
                "First-packet time of the oldest capture on disk, seconds since the epoch.", s.oldest_start);
  seconds_gauge(out, "faitra_retention_newest_start_seconds",
                "First-packet time of the newest capture on disk, seconds since the epoch.", s.newest_start);
  if (s.catalogue_export) render_export(out, *s.catalogue_export);
  return out;
}

}  // namespace faitra_host
