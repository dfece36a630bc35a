#include "serve/operator_api.hpp"

#include "serve/api_json.hpp"
#include <faitra/host/cleanup_plan.hpp>

namespace faitra_cli {

using namespace faitra_host;

const std::set<std::string> OPERATOR_PATHS = {"/v1/cleanup/plan", "/v1/cleanup/runs", "/v1/timeline"};

namespace {

void write_optional(cdl::json_writer& w, const char* name, const std::optional<unsigned long>& value) {
  w.key(name, true);
  if (value) {
    w.value<unsigned long>(*value);
  } else {
    w.null_value();
  }
}

// "captures": [...], "bytes": N
void write_plan(cdl::json_writer& w, const cleanup_plan& plan) {
  w.key("captures", true);
  w.begin_array();
  for (const csl::fs_entry& e : plan.captures) write_record(w, e);
  w.end_array();
  write_member(w, "bytes", plan.bytes);
}

void write_usage(cdl::json_writer& w, const char* name, unsigned long used, unsigned long total) {
  w.key(name, true);
  w.begin_object();
  write_member(w, "used", used);
  write_member(w, "total", total);
  w.key("fraction", true);
  write_fraction(w, total == 0 ? 0.0 : static_cast<double>(used) / static_cast<double>(total));
  w.end_object();
}

void write_run(cdl::json_writer& w, const cleanup_run& run) {
  w.begin_object();
  w.key("started_at", true);
  w.value<long>(run.started_at);
  w.key("finished_at", true);
  if (run.finished_at == 0) {
    w.null_value();
  } else {
    w.value<long>(run.finished_at);
  }
  write_usage(w, "before", run.used_before, run.total);
  if (run.finished_at == 0) {
    w.key("after", true);
    w.null_value();
  } else {
    write_usage(w, "after", run.used_after, run.total);
  }
  write_member(w, "deleted", run.deleted);
  write_member(w, "failures", run.failures);
  w.key("last_failure", true);
  if (run.last_failure.empty()) {
    w.null_value();
  } else {
    w.value<std::string>(run.last_failure);
  }
  w.end_object();
}

void write_numbers(cdl::json_writer& w, const char* name, const std::vector<unsigned long>& values) {
  w.key(name, true);
  w.begin_array();
  for (const unsigned long v : values) w.value<unsigned long>(v);
  w.end_array();
}

}  // namespace

void write_retention(cdl::json_writer& w, const retention_window& window) {
  w.begin_object();
  write_optional(w, "oldest_start", window.oldest_start);
  write_optional(w, "newest_start", window.newest_start);
  w.key("span_seconds", true);
  write_fraction(w, window.span_seconds());
  w.end_object();
}

void answer_age_dry_run(httplib::Response& res, capture_daemon& d, const age_cleanup_request& age) {
  const bool files = age.mode != csl::age_cleanup_state::metadata;
  const bool metadata = age.mode != csl::age_cleanup_state::files;
  cdl::json_writer w;
  w.begin_object();
  w.key("dry_run", true);
  w.value<bool>(true);
  w.key("mode", true);
  w.value<std::string>(age.mode_text);
  write_member(w, "cutoff", age.cutoff);
  write_plan(w, files ? plan_age_cleanup(d.cache(), age.cutoff) : cleanup_plan{});
  // The range the metadata cleanup command would be given.
  w.key("metadata_range", true);
  if (metadata) {
    w.begin_object();
    write_member(w, "start", 0);
    write_member(w, "end", age.cutoff * 1000000000UL);
    w.end_object();
  } else {
    w.null_value();
  }
  w.end_object();
  send_json(res, 200, w);
}

void install_operator_routes(httplib::Server& server, const http_api& api) {
  server.Get("/v1/cleanup/plan", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    parse_plain_request(req.target);
    const auto state = d.storage().state();
    const float trigger = d.cleaner().trigger();
    const float stop = d.cleaner().stop();
    const cleanup_plan plan = plan_usage_cleanup(d.cache(), state.used, state.total, stop);
    cdl::json_writer w;
    w.begin_object();
    write_usage(w, "usage", state.used, state.total);
    w.key("trigger", true);
    write_fraction(w, trigger);
    w.key("stop", true);
    write_fraction(w, stop);
    // The cleaner's own start condition, on the figures read now.
    w.key("would_run", true);
    w.value<bool>(d.options().auto_cleanup && !d.cleaner().cleanup_in_progress() && d.cache().size() != 0 &&
                  state.total != 0 && csl::fs_cleaner::disk_usage_percent(state.used, state.total) >= trigger);
    write_plan(w, plan);
    write_usage(w, "estimated_after", plan.estimated_used, state.total);
    w.end_object();
    send_json(res, 200, w);
  }));

  server.Get("/v1/cleanup/runs", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    parse_plain_request(req.target);
    cdl::json_writer w;
    w.begin_object();
    w.key("runs", true);
    w.begin_array();
    for (const cleanup_run& run : d.history().runs()) write_run(w, run);
    w.end_array();
    w.end_object();
    send_json(res, 200, w);
  }));

  server.Get("/v1/timeline", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    const timeline_request query = parse_timeline_request(req.target);
    std::optional<unsigned long> start, end;
    if (query.range) {
      start = query.range->start;
      end = query.range->end;
    }
    const timeline t = read_timeline(d.cache(), query.buckets, start, end);
    cdl::json_writer w;
    w.begin_object();
    write_member(w, "start", t.start);
    write_member(w, "end", t.end);
    write_member(w, "bucket_width", t.width);
    write_numbers(w, "bytes", t.bytes);
    write_numbers(w, "captures", t.captures);
    w.end_object();
    send_json(res, 200, w);
  }));
}

}  // namespace faitra_cli
