#include "serve/retention_api.hpp"

#include "serve/api_json.hpp"
#include "serve/api_request.hpp"

#include <faitra/host/hold_json.hpp>
#include <faitra/host/time_text.hpp>


namespace faitra_cli {

using namespace faitra_host;

namespace {

void fraction(cdl::json_writer& w, const char* name, double value) {
  w.key(name, true);
  write_fraction(w, value);
}

}  // namespace

void install_hold_routes(httplib::Server& server, http_api& api) {
  api.route(server, "POST", "/v1/holds", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    hold_request request = parse_hold_request(req.target, req.body);
    for (std::string& path : request.paths) {  // a name that is not UTF-8 comes escaped
      for (const std::string& form : catalogued_forms(path)) {
        if (d.cache().path_exists(form)) {
          path = form;
          break;
        }
      }
    }
    std::vector<hold_refusal> refused;
    hold made;
    try {
      made = d.holds().add(request, wall_clock_ns(), refused);
    } catch (const hold_error& e) {
      throw api_error(e.status(), e.what());
    }
    cdl::json_writer w;
    w.begin_object();
    w.key("hold", true);
    write_hold(w, made);
    w.key("not_held", true);
    w.begin_array();
    for (const hold_refusal& r : refused) {
      w.begin_object();
      w.key("path", true);
      w.value<std::string>(r.path);
      w.key("reason", true);
      w.value<std::string>(r.reason);
      w.end_object();
    }
    w.end_array();
    w.end_object();
    send_json(res, 201, w);
  }));

  api.route(server, "GET", "/v1/holds", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    parse_plain_request(req.target);
    d.holds().expire(wall_clock_ns());  // an expired hold is never listed
    const auto totals = d.holds().summary();
    cdl::json_writer w;
    w.begin_object();
    w.key("dir", true);
    w.value<std::string>(d.holds().dir());
    write_member(w, "captures", totals.captures);
    write_member(w, "bytes", totals.bytes);
    w.key("holds", true);
    w.begin_array();
    for (const hold& h : d.holds().list()) write_hold(w, h);
    w.end_array();
    w.end_object();
    send_json(res, 200, w);
  }));

  api.route(server, "DELETE", "/v1/holds", api.guarded([&api](const httplib::Request& req, httplib::Response& res) {
    faitra_host::capture_daemon& d = api.one_root(req);
    const unsigned long id = parse_hold_release_request(req.target);
    if (!d.holds().release(id)) throw api_error(404, "no hold has the id " + std::to_string(id));
    cdl::json_writer w;
    w.begin_object();
    write_member(w, "released", id);
    w.end_object();
    send_json(res, 200, w);
  }));
}

void write_retention_status(cdl::json_writer& w, capture_daemon& d) {
  w.key("max_age", true);
  if (const age_retention* r = d.retention()) {
    const auto s = r->sample();
    w.begin_object();
    write_member(w, "seconds", r->max_age_ns() / NS_PER_SECOND);
    w.key("duration", true);
    w.value<std::string>(format_duration_ns(r->max_age_ns()));
    write_member(w, "checks", s.checks);
    write_member(w, "runs", s.runs);
    write_member(w, "deleted", s.marked);
    write_member(w, "last_cutoff", s.last_cutoff);
    w.end_object();
  } else {
    w.null_value();
  }
  w.key("hard_limit", true);
  if (const hard_limit_guard* g = d.hard_limit()) {
    const auto s = g->sample();
    w.begin_object();
    fraction(w, "fraction", g->ceiling());
    write_member(w, "episodes", s.episodes);
    write_member(w, "deleted", s.deleted);
    write_member(w, "deleted_bytes", s.deleted_bytes);
    fraction(w, "highest_fraction", s.highest);
    w.end_object();
  } else {
    w.null_value();
  }
  const auto totals = d.holds().summary();
  w.key("holds", true);
  w.begin_object();
  w.key("dir", true);
  w.value<std::string>(d.holds().dir());
  write_member(w, "count", totals.holds);
  write_member(w, "captures", totals.captures);
  write_member(w, "bytes", totals.bytes);
  w.end_object();
}

}  // namespace faitra_cli
