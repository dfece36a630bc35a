#include "serve/status_api.hpp"

#include "serve/api_json.hpp"
#include "serve/operator_api.hpp"
#include "serve/retention_api.hpp"

#include <cdl/json_writer.hpp>

#include <algorithm>

namespace faitra_cli {

using namespace faitra_host;

namespace {

void write_problems(cdl::json_writer& w, const std::vector<scan_problem>& problems) {
  w.begin_array();
  for (const scan_problem& p : problems) {
    w.begin_object();
    w.key("name", true);
    w.value<std::string>(p.name);
    w.key("reason", true);
    w.value<std::string>(p.reason);
    w.end_object();
  }
  w.end_array();
}

}  // namespace

void write_reconcile_result(cdl::json_writer& w, const reconcile_result& r) {
  w.begin_object();
  w.key("added", true);
  w.value<unsigned long>(r.added);
  w.key("removed", true);
  w.value<unsigned long>(r.removed);
  w.key("updated", true);
  w.value<unsigned long>(r.updated);
  w.key("deferred", true);
  w.value<unsigned long>(r.deferred);
  w.key("finished_at", true);
  w.value<long>(r.finished_at);
  w.key("problems", true);
  write_problems(w, r.problems);
  w.end_object();
}

namespace {

void write_export_status(cdl::json_writer& w, const export_status& e) {
  const auto number = [&w](const char* name, unsigned long value) {
    w.key(name, true);
    w.value<unsigned long>(value);
  };
  w.begin_object();
  w.key("sensor", true);
  w.value<std::string>(e.sensor);
  w.key("connected", true);
  w.value<bool>(e.connected);
  w.key("server", true);
  w.value<std::string>(e.server);
  w.key("lag_seconds", true);
  write_fraction(w, e.lag_seconds);
  w.key("last_batch_lag_seconds", true);
  write_fraction(w, e.last_batch_lag_seconds);
  number("queue_depth", e.queue_depth);
  number("queue_capacity", e.queue_capacity);
  w.key("resync_needed", true);
  w.value<bool>(e.resync_needed);
  w.key("last_resync", true);
  w.value<long>(e.last_resync);
  w.key("last_resync_seconds", true);
  write_fraction(w, e.last_resync_seconds);
  number("last_resync_captures", e.last_resync_summary.catalogued);
  number("resyncs", e.resyncs);
  number("batches", e.batches);
  number("rows_upserted", e.rows_upserted);
  number("rows_deleted", e.rows_deleted);
  number("failures", e.failures);
  number("overflows", e.overflows);
  w.key("last_error", true);
  w.value<std::string>(e.last_error);
  w.end_object();
}

}  // namespace

reconcile_result add_reconciles(const std::vector<reconcile_result>& results) {
  reconcile_result sum = results.front();
  for (size_t i = 1; i < results.size(); ++i) {
    const reconcile_result& r = results[i];
    sum.added += r.added;
    sum.removed += r.removed;
    sum.updated += r.updated;
    sum.deferred += r.deferred;
    sum.finished_at = std::max(sum.finished_at, r.finished_at);
    sum.problems.insert(sum.problems.end(), r.problems.begin(), r.problems.end());
  }
  return sum;
}

namespace {

void write_usage(cdl::json_writer& w, const metrics_sample& m) {
  w.begin_object();
  w.key("used", true);
  w.value<unsigned long>(m.disk_used);
  w.key("total", true);
  w.value<unsigned long>(m.disk_total);
  w.key("fraction", true);
  write_fraction(w, m.disk_total == 0 ? 0.0 : static_cast<double>(m.disk_used) / static_cast<double>(m.disk_total));
  w.end_object();
}

// The members of /v1/status that describe one root; the first root's are
// also the top level's.
void write_root_members(cdl::json_writer& w, capture_daemon& d, const metrics_sample& m) {
  const daemon_options& o = d.options();
  w.key("root", true);
  w.value<std::string>(o.root);
  w.key("watch", true);
  w.begin_array();
  for (const std::string& dir : o.watch) w.value<std::string>(dir);
  w.end_array();
  w.key("captures", true);
  w.value<unsigned long>(m.captures);
  w.key("usage", true);
  write_usage(w, m);
  w.key("retention", true);
  retention_window window;
  window.oldest_start = m.oldest_start;
  window.newest_start = m.newest_start;
  write_retention(w, window);
  w.key("trigger", true);
  write_fraction(w, d.cleaner().trigger());
  w.key("stop", true);
  write_fraction(w, d.cleaner().stop());
  w.key("automatic_cleanup", true);
  w.value<bool>(o.auto_cleanup);
  w.key("automatic_metadata_cleanup", true);
  w.value<bool>(d.cleaner().metadata_cleanup_enabled());
  w.key("cleanup_in_progress", true);
  w.value<bool>(m.cleanup_in_progress);
  w.key("cleanup", true);
  w.begin_object();
  w.key("runs", true);
  w.value<unsigned long>(m.cleanup_runs);
  w.key("deleted_on_request", true);
  w.value<unsigned long>(m.deleted_requested);
  w.key("deleted_by_cleanup", true);
  w.value<unsigned long>(m.deleted_cleanup);
  w.key("removed_externally", true);
  w.value<unsigned long>(m.removed_externally);
  w.key("delete_queue", true);
  w.value<unsigned long>(m.delete_queue);
  w.key("metadata_cleanup_failures", true);
  w.value<unsigned long>(m.metadata_cleanup_failures);
  w.end_object();
}

}  // namespace

void answer_status(httplib::Response& res, capture_daemon& d, const std::vector<capture_daemon*>& roots) {
  const metrics_sample m = d.sample_metrics();
  const daemon_options& o = d.options();
  cdl::json_writer w;
  w.begin_object();
  w.key("version", true);
  w.value<std::string>(faitra_version());
  write_root_members(w, d, m);
  w.key("scan_problems", true);
  write_problems(w, d.scan_problems());
  w.key("reconcile", true);
  w.begin_object();
  w.key("interval_seconds", true);
  w.value<long>(static_cast<long>(o.reconcile_interval.count()));
  w.key("runs", true);
  w.value<unsigned long>(m.reconcile_runs);
  w.key("added", true);
  w.value<unsigned long>(m.drift_added);
  w.key("removed", true);
  w.value<unsigned long>(m.drift_removed);
  w.key("updated", true);
  w.value<unsigned long>(m.drift_updated);
  w.key("queue_overflows", true);
  w.value<unsigned long>(m.queue_overflows);
  w.key("last", true);
  const auto last = d.reconcile().last();
  if (last) {
    write_reconcile_result(w, *last);
  } else {
    w.null_value();
  }
  w.end_object();
  w.key("derivation", true);
  const metadata_deriver* deriver = d.deriver();
  if (deriver == nullptr) {
    w.null_value();
  } else {
    const derive_counters& c = deriver->counters();
    w.begin_object();
    w.key("derived", true);
    w.value<unsigned long>(m.derived);
    w.key("bytes_read", true);
    w.value<unsigned long>(m.derive_bytes_read);
    w.key("failures", true);
    w.value<unsigned long>(m.derive_failures);
    w.key("queued", true);
    w.value<unsigned long>(m.derive_queue);
    w.key("attributes_read", true);
    w.value<unsigned long>(c.attributes_read.load());
    w.key("kept_in_memory", true);
    w.value<unsigned long>(c.memory_only.load());
    w.key("dropped", true);
    w.value<unsigned long>(c.dropped.load());
    w.end_object();
  }
  w.key("handler_failures", true);
  w.value<unsigned long>(m.handler_failures);
  write_retention_status(w, d);
  w.key("roots", true);
  w.begin_array();
  for (capture_daemon* r : roots) {
    w.begin_object();
    write_root_members(w, *r, r == &d ? m : r->sample_metrics());
    write_retention_status(w, *r);
    w.end_object();
  }
  w.end_array();
  w.key("export", true);
  if (m.catalogue_export) {
    write_export_status(w, *m.catalogue_export);
  } else {
    w.null_value();
  }
  w.end_object();
  send_json(res, 200, w);
}

}  // namespace faitra_cli
