#include <faitra/host/metrics.hpp>

#include <cstdio>
#include <initializer_list>
#include <utility>

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

// Prometheus label value escaping: backslash, double quote and line feed.
std::string label_value(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c == '\n' ? std::string("\\n") : std::string(1, c);
  }
  return out;
}

// `extra` (reason="x", or empty) with the root's label when there are
// several roots, in braces; empty without labels.
std::string labels(const std::string& root, const std::string& extra) {
  const std::string inside =
      root.empty() ? extra : "root=\"" + label_value(root) + "\"" + (extra.empty() ? "" : "," + extra);
  return inside.empty() ? "" : "{" + inside + "}";
}

// Writes each family once, with one sample per root.
class exposition {
 public:
  explicit exposition(const std::vector<root_sample>& samples) : _samples(samples) {}

  void single(const char* name, const char* type, const char* help, unsigned long metrics_sample::*field) {
    family(_out, name, type, help);
    for (const root_sample& r : _samples) line(name, root_of(r), "", r.sample.*field);
  }
  // A family with one series per label value.
  void split(const char* name, const char* type, const char* help,
             std::initializer_list<std::pair<const char*, unsigned long metrics_sample::*>> series) {
    family(_out, name, type, help);
    for (const root_sample& r : _samples) {
      for (const auto& [label, field] : series) line(name, root_of(r), label, r.sample.*field);
    }
  }
  void flag(const char* name, const char* help, bool metrics_sample::*field) {
    family(_out, name, "gauge", help);
    for (const root_sample& r : _samples) line(name, root_of(r), "", r.sample.*field ? 1 : 0);
  }
  // Nanoseconds as seconds with their fraction; absent values give no
  // sample, so that an empty catalogue does not report the epoch.
  void seconds(const char* name, const char* help, std::optional<unsigned long> metrics_sample::*field) {
    family(_out, name, "gauge", help);
    for (const root_sample& r : _samples) {
      const std::optional<unsigned long> ns = r.sample.*field;
      if (!ns) continue;
      char text[48];
      std::snprintf(text, sizeof text, " %lu.%09lu\n", *ns / 1000000000UL, *ns % 1000000000UL);
      _out += name + labels(root_of(r), "") + text;
    }
  }
  std::string& out() { return _out; }

 private:
  std::string root_of(const root_sample& r) const { return _samples.size() > 1 ? r.root : std::string(); }
  void line(const char* name, const std::string& root, const std::string& extra, unsigned long value) {
    _out += name + labels(root, extra) + ' ' + std::to_string(value) + '\n';
  }

  const std::vector<root_sample>& _samples;
  std::string _out;
};

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

std::string render_metrics(const metrics_sample& sample) { return render_metrics({root_sample{"", sample}}); }

std::string render_metrics(const std::vector<root_sample>& samples) {
  using m = metrics_sample;
  exposition e(samples);
  e.single("faitra_captures", "gauge", "Captures in the catalogue.", &m::captures);
  e.single("faitra_disk_used_bytes", "gauge", "Bytes in use on the capture file system.", &m::disk_used);
  e.single("faitra_disk_total_bytes", "gauge", "Size of the capture file system in bytes.", &m::disk_total);
  e.flag("faitra_cleanup_in_progress", "1 while an automatic cleanup run is removing captures.",
         &m::cleanup_in_progress);
  e.single("faitra_cleanup_runs_total", "counter", "Automatic cleanup runs completed.", &m::cleanup_runs);
  e.split("faitra_captures_deleted_total", "counter",
          "Captures whose removal the catalogue saw, by who marked them (request, cleanup) or none (external).",
          {{"reason=\"request\"", &m::deleted_requested},
           {"reason=\"cleanup\"", &m::deleted_cleanup},
           {"reason=\"external\"", &m::removed_externally}});
  e.single("faitra_delete_queue", "gauge", "Captures marked on request and waiting for the delete thread.",
           &m::delete_queue);
  e.single("faitra_metadata_cleanup_failures_total", "counter", "Metadata cleanup commands that failed.",
           &m::metadata_cleanup_failures);
  e.single("faitra_reconcile_runs_total", "counter", "Reconcile runs completed.", &m::reconcile_runs);
  e.split("faitra_drift_repaired_total", "counter",
          "Catalogue differences from the disk repaired by the reconcile, by kind.",
          {{"kind=\"added\"", &m::drift_added}, {"kind=\"removed\"", &m::drift_removed},
           {"kind=\"updated\"", &m::drift_updated}});
  e.single("faitra_derived_total", "counter", "Captures whose metadata was derived from their packets.", &m::derived);
  e.single("faitra_derive_read_bytes_total", "counter", "Bytes read to derive capture metadata.",
           &m::derive_bytes_read);
  e.single("faitra_derive_failures_total", "counter",
           "Captures whose metadata could not be derived (not a capture, unreadable, no timed packet).",
           &m::derive_failures);
  e.single("faitra_derive_queue", "gauge", "Captures waiting for their metadata to be derived.", &m::derive_queue);
  e.single("faitra_inotify_overflows_total", "counter",
           "Times the kernel's inotify queue overflowed and file events were lost; each starts a reconcile.",
           &m::queue_overflows);
  e.single("faitra_hard_limit_episodes_total", "counter",
           "Times usage reached the hard limit and captures were deleted at once.", &m::hard_limit_episodes);
  e.single("faitra_hard_limit_deleted_total", "counter", "Captures the hard limit deleted.", &m::hard_limit_deleted);
  e.single("faitra_max_age_runs_total", "counter", "Age cleanups started by --max-age.", &m::max_age_runs);
  e.single("faitra_max_age_deleted_total", "counter", "Captures those age cleanups concerned.", &m::max_age_deleted);
  e.single("faitra_holds", "gauge", "Evidence holds in force.", &m::holds);
  e.single("faitra_held_captures", "gauge", "Captures kept by evidence holds.", &m::held_captures);
  e.single("faitra_held_bytes", "gauge", "Bytes of the distinct files kept by evidence holds.", &m::held_bytes);
  e.single("faitra_scan_problems", "gauge", "Files skipped by the start-up scan.", &m::scan_problems);
  e.single("faitra_handler_failures_total", "counter", "Exceptions that escaped a task handler.",
           &m::handler_failures);
  e.seconds("faitra_retention_oldest_start_seconds",
            "First-packet time of the oldest capture on disk, seconds since the epoch.", &m::oldest_start);
  e.seconds("faitra_retention_newest_start_seconds",
            "First-packet time of the newest capture on disk, seconds since the epoch.", &m::newest_start);
  if (!samples.empty() && samples.front().sample.catalogue_export) {
    render_export(e.out(), *samples.front().sample.catalogue_export);
  }
  return e.out();
}

}  // namespace faitra_host
