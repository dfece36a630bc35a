#include "serve/http_api.hpp"

#include "serve/api_json.hpp"
#include "serve/operator_api.hpp"
#include "serve/retention_api.hpp"
#include "serve/status_api.hpp"
#include "serve/status_page.hpp"
#include <faitra/host/capture_overlap.hpp>
#include <faitra/host/escaped_bytes.hpp>

#include <cdl/exception.hpp>
#include <cdl/json_values.hpp>
#include <cdl/json_writer.hpp>
#include <cdl/text.hpp>

#include <cstdint>
#include <cstdio>
#include <algorithm>
#include <functional>
#include <limits>
#include <set>
#include <vector>

namespace faitra_cli {

using namespace faitra_host;

namespace {


// The paths the API serves, for telling "unknown path" from "wrong method".
const std::set<std::string> KNOWN_PATHS = {
    "/v1/captures",     "/v1/captures/lookup",         "/v1/storage", "/v1/cleanup/age", "/v1/packets",
    "/v1/cleanup/metadata", "/v1/cleanup/metadata/automatic", "/v1/status", "/v1/reconcile",
    "/v1/holds",        "/metrics",         "/healthz",
};

// Methods whose requests httplib expects a body with.
const std::set<std::string> BODY_METHODS = {"POST", "PUT", "PATCH", "DELETE"};

// Whether `path` is served, by some method.
bool known_path(const std::string& path) {
  return KNOWN_PATHS.count(path) != 0 || OPERATOR_PATHS.count(path) != 0 || STATUS_PAGE_PATHS.count(path) != 0;
}

std::string error_json(const std::string& message) {
  cdl::json_writer w;
  w.begin_object();
  w.key("error", true);
  w.value<std::string>(message);
  w.end_object();
  return w.take();
}

void send_error(httplib::Response& res, int status, const std::string& message) {
  res.status = status;
  res.set_content(error_json(message), JSON_TYPE);
}

const char* reason_phrase(int status) {
  switch (status) {
    case 400: return "bad request";
    case 401: return "unauthorized";
    case 403: return "forbidden";
    case 404: return "not found";
    case 405: return "method not allowed";
    case 408: return "request timeout";
    case 411: return "length required";
    case 413: return "payload too large";
    case 414: return "URI too long";
    case 416: return "range not satisfiable";
    case 503: return "service unavailable";
    default: return status >= 500 ? "internal error" : "request refused";
  }
}

// The record catalogued under one of the forms of `sent` (see
// catalogued_forms), found by path or, with `by_key`, by hash key.
std::optional<csl::fs_entry> find_record(csl::fs_cache& cache, const std::string& sent, bool by_key) {
  for (const std::string& form : catalogued_forms(sent)) {
    csl::fs_entry record;
    if (!by_key) {
      if (cache.by_path(record, form)) return record;
      continue;
    }
    csl::fs_cache::shared_guard lock(cache);
    const auto found = cache.key_cache().find(std::string_view(form));
    if (found != cache.key_cache().end() && cache.path_cache().lookup((*found)->path) == *found) return **found;
  }
  return std::nullopt;
}

// The root among `roots` that catalogues `sent`, with its record.
std::optional<std::pair<capture_daemon*, csl::fs_entry>> find_in_roots(const std::vector<capture_daemon*>& roots,
                                                                       const std::string& sent, bool by_key) {
  for (capture_daemon* d : roots) {
    if (std::optional<csl::fs_entry> record = find_record(d->cache(), sent, by_key)) {
      return std::make_pair(d, std::move(*record));
    }
  }
  return std::nullopt;
}

// One root's part of a listing, at most `query.limit` records.
void list_root(capture_daemon& d, const list_request& query, std::vector<csl::fs_entry>& out, uint64_t& skipped) {
  const auto& range = query.range;
  std::vector<csl::fs_entry> records;
  if (range && query.by_start) {
    d.cache().by_time(records, range->start, range->end);
    csl::fs_cache::shared_guard lock(d.cache());
    skipped += d.cache().path_cache().size() - d.cache().start_ts_cache().size();
  } else if (range) {
    overlap_selection selection = select_overlapping(d.cache(), range->start, range->end);
    records = std::move(selection.captures);
    skipped += selection.without_times;
  } else {
    csl::fs_cache::shared_guard lock(d.cache());
    for (const auto& record : d.cache().path_cache()) {
      if (records.size() >= query.limit) break;
      records.push_back(*record);
    }
  }
  if (records.size() > query.limit) records.resize(query.limit);
  out.insert(out.end(), std::make_move_iterator(records.begin()), std::make_move_iterator(records.end()));
}

// The order of one root's listing, kept across roots: by first-packet time
// then path with a range, by path without.
void merge_listing(std::vector<csl::fs_entry>& records, bool by_time) {
  std::stable_sort(records.begin(), records.end(), [by_time](const csl::fs_entry& a, const csl::fs_entry& b) {
    if (by_time) {
      const uint64_t a_start = a.start_ts.is_null() ? 0 : *a.start_ts;
      const uint64_t b_start = b.start_ts.is_null() ? 0 : *b.start_ts;
      if (a_start != b_start) return a_start < b_start;
    }
    return a.path < b.path;
  });
}

}  // namespace

http_api::http_api(capture_roots& roots, std::optional<std::string> token, unsigned max_retrievals)
    : _roots(roots), _token(std::move(token)), _max_retrievals(max_retrievals) {}

capture_daemon& http_api::one_root(const httplib::Request& req) const {
  const std::optional<std::string> name = parse_root_param(req.target);
  if (!name) return _roots.first();
  capture_daemon* d = _roots.find(*name);
  if (d == nullptr) throw api_error(404, "no capture root is " + *name + "; the roots are " + _roots.names());
  return *d;
}

std::vector<capture_daemon*> http_api::roots_for(const httplib::Request& req) const {
  if (parse_root_param(req.target)) return {&one_root(req)};
  std::vector<capture_daemon*> all;
  for (size_t i = 0; i < _roots.size(); ++i) all.push_back(&_roots.at(i));
  return all;
}

void http_api::set_token(std::string token) {
  std::lock_guard<std::mutex> lock(_token_mutex);
  _token = std::move(token);
}

std::optional<std::string> http_api::token() const {
  std::lock_guard<std::mutex> lock(_token_mutex);
  return _token;
}

void http_api::route(httplib::Server& server, const std::string& method, const std::string& path, api_handler h) {
  _routes[{method, path}] = h;
  if (method == "GET") server.Get(path, std::move(h));
  if (method == "POST") server.Post(path, std::move(h));
  if (method == "PUT") server.Put(path, std::move(h));
  if (method == "DELETE") server.Delete(path, std::move(h));
}

// The token is read at each request (SIGHUP may replace it), and checked
// here rather than before routing so that the request's body has been read
// when the 401 goes out. Anything but api_error reaches the exception
// handler as a 500.
api_handler http_api::guarded(api_handler h) const {
  return [this, h = std::move(h)](const httplib::Request& req, httplib::Response& res) {
    try {
      if (const std::optional<std::string> expected = token()) {
        std::vector<std::string> headers;
        // The values whole: get_header_value() would end one at a NUL byte.
        const auto [first, last] = req.headers.equal_range("Authorization");
        for (auto it = first; it != last; ++it) headers.push_back(it->second);
        try {
          check_authorization(headers, *expected);
        } catch (const api_error& e) {
          if (e.status() == 401) res.set_header("WWW-Authenticate", "Bearer realm=\"faitra\"");
          throw;
        }
      }
      check_body_size(req.body);
      h(req, res);
    } catch (const api_error& e) {
      send_error(res, e.status(), e.what());
    }
  };
}

void http_api::install(httplib::Server& server) {
  cdl::log* log = _roots.first().log();

  const size_t threads = SERVER_THREADS + _max_retrievals;
  server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
  // httplib answers a body above its own limit without reading it, and the
  // client may then see a reset connection instead of the answer. So its
  // limit is higher, and the handlers check the API's own after reading.
  server.set_payload_max_length(HTTPLIB_BODY_LIMIT);

  // Runs before httplib reads a body. httplib applies its limit only to a
  // body announced with Content-Length: a chunked body is collected in full,
  // however large, and one announced above the limit is read to its end
  // (and thrown away) before the answer. Neither may hold the daemon: the
  // API's bodies are small JSON documents that every client sends with a
  // length, so chunked bodies are refused, and a body above the limit is
  // answered at once and its connection closed.
  server.set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
    if (BODY_METHODS.count(req.method) != 0 && !req.has_header("Content-Length") &&
        !req.has_header("Transfer-Encoding")) {
      // No body at all (HTTP/1.1: an empty one): answered here, before
      // httplib would refuse it.
      const auto found = _routes.find({req.method, req.path});
      if (found != _routes.end()) {
        found->second(req, res);
      } else if (known_path(req.path)) {
        send_error(res, 405, "method " + req.method + " is not allowed on " + req.path);
      } else {
        send_error(res, 404, "no such endpoint: " + req.path);
      }
      return httplib::Server::HandlerResponse::Handled;
    }
    if (req.has_header("Transfer-Encoding")) {
      send_error(res, 411, "send the body with a Content-Length, not in chunks");
    } else if (req.get_header_value<uint64_t>("Content-Length") > HTTPLIB_BODY_LIMIT) {
      send_error(res, 413, "the body is larger than " + std::to_string(MAX_BODY_BYTES) + " bytes");
    } else {
      return httplib::Server::HandlerResponse::Unhandled;
    }
    res.set_header("Connection", "close");
    return httplib::Server::HandlerResponse::Handled;
  });

  server.set_error_handler([](const httplib::Request& req, httplib::Response& res) {
    if (!res.body.empty()) return;
    if (res.status == 404 && known_path(req.path)) {
      send_error(res, 405, "method " + req.method + " is not allowed on " + req.path);
    } else if (res.status == 404) {
      send_error(res, 404, "no such endpoint: " + req.path);
    } else if (res.status == 413) {
      send_error(res, 413, "the body is larger than " + std::to_string(MAX_BODY_BYTES) + " bytes");
    } else {
      send_error(res, res.status, reason_phrase(res.status));
    }
  });

  server.set_exception_handler([log](const httplib::Request& req, httplib::Response& res, std::exception_ptr ep) {
    std::string what = "unknown error";
    try {
      std::rethrow_exception(ep);
    } catch (const std::exception& e) {
      what = e.what();
    } catch (...) {
    }
    if (log != nullptr) log->error("%s %s failed: %s", req.method, req.path, what);
    send_error(res, 500, what);
  });

  if (log != nullptr) {
    server.set_logger([log](const httplib::Request& req, const httplib::Response& res) {
      log->debug("%s %s -> %d", req.method, req.path, res.status);
    });
  }

  route(server, "GET", "/v1/captures", guarded([this](const httplib::Request& req, httplib::Response& res) {
    const list_request query = parse_list_request(req.target);
    const std::vector<capture_daemon*> roots = roots_for(req);
    std::vector<csl::fs_entry> records;
    uint64_t skipped = 0;
    for (capture_daemon* d : roots) list_root(*d, query, records, skipped);
    if (roots.size() > 1) merge_listing(records, query.range.has_value());
    if (records.size() > query.limit) records.resize(query.limit);
    cdl::json_writer w;
    w.begin_object();
    w.key("captures", true);
    w.begin_array();
    for (const csl::fs_entry& e : records) write_record(w, e);
    w.end_array();
    if (query.range) {
      w.key("skipped", true);
      w.value<unsigned long>(skipped);
    }
    w.end_object();
    send_json(res, 200, w);
  }));

  route(server, "GET", "/v1/captures/lookup", guarded([this](const httplib::Request& req, httplib::Response& res) {
    const lookup_request lookup = parse_lookup_request(req.target);
    const auto found = find_in_roots(roots_for(req), lookup.value, lookup.by_key);
    const std::optional<csl::fs_entry> record = found ? std::optional(found->second) : std::nullopt;
    if (!record) {
      throw api_error(404, std::string(lookup.by_key ? "no capture is catalogued with the key "
                                                     : "no capture is catalogued at ") + lookup.value);
    }
    cdl::json_writer w;
    write_record(w, *record);
    send_json(res, 200, w);
  }));

  // For probes: no token, no daemon state beyond being up.
  route(server, "GET", "/healthz", [](const httplib::Request& req, httplib::Response& res) {
    try {
      parse_plain_request(req.target);
      res.status = 200;
      res.set_content("{\"status\":\"ok\"}", JSON_TYPE);
    } catch (const api_error& e) {
      send_error(res, e.status(), e.what());
    }
  });

  route(server, "DELETE", "/v1/captures", guarded([this](const httplib::Request& req, httplib::Response& res) {
    const delete_request del = parse_delete_request(req.target);
    const std::vector<capture_daemon*> roots = roots_for(req);
    cdl::json_writer w;
    w.begin_object();
    w.key("marked", true);
    if (del.what == delete_request::form::path) {
      // Only an exact catalogued path is ever marked; anything else (a
      // relative path, "..", a link to elsewhere) is simply not found.
      const auto found = find_in_roots(roots, del.path, false);
      if (!found) throw api_error(404, "no capture is catalogued at " + del.path);
      w.value<bool>(found->first->storage().delete_by_path(found->second.path, csl::fs_entry::deletion_by::requested));
    } else if (del.what == delete_request::form::all) {
      unsigned long marked = 0;
      for (capture_daemon* d : roots) marked += d->storage().clear(csl::fs_entry::deletion_by::requested);
      w.value<unsigned long>(marked);
    } else {
      std::vector<csl::fs_entry> marked;
      for (capture_daemon* d : roots) {
        d->storage().delete_by_time(marked, del.range.start, del.range.end, del.by_start,
                                    csl::fs_entry::deletion_by::requested);
      }
      w.begin_array();
      for (const csl::fs_entry& e : marked) write_record(w, e);
      w.end_array();
    }
    w.end_object();
    send_json(res, 200, w);
  }));

  route(server, "GET", "/v1/storage", guarded([this](const httplib::Request& req, httplib::Response& res) {
    parse_plain_request(req.target);
    cdl::json_writer w;
    one_root(req).storage().state().to_json(w, {}, {});
    send_json(res, 200, w);
  }));

  route(server, "POST", "/v1/cleanup/age", guarded([this, log](const httplib::Request& req, httplib::Response& res) {
    const age_cleanup_request age = parse_age_cleanup_request(req.target, req.body);
    if (age.dry_run) return answer_age_dry_run(res, one_root(req), age);
    const auto mode = age.mode;
    const unsigned long cutoff = age.cutoff;
    for (capture_daemon* d : roots_for(req)) {
      const bool accepted = d->jobs().submit("Age cleanup", [d, mode, cutoff] { d->cleaner().start_age_cleanup(mode, cutoff); });
      if (!accepted) throw api_error(503, "too many cleanups are waiting on " + d->options().root + "; try again later");
    }
    if (log != nullptr) log->info("Accepted an age cleanup of %s up to %lu s", age.mode_text, cutoff);
    cdl::json_writer w;
    w.begin_object();
    w.key("accepted", true);
    w.value<bool>(true);
    w.end_object();
    send_json(res, 202, w);
  }));

  route(server, "POST", "/v1/cleanup/metadata", guarded([this, log](const httplib::Request& req, httplib::Response& res) {
    const time_range range = parse_metadata_cleanup_request(req.target, req.body);
    const unsigned long start = range.start;
    const unsigned long end = range.end;
    for (capture_daemon* d : roots_for(req)) {
      const bool accepted = d->jobs().submit("Metadata cleanup", [d, start, end] {
        d->cleaner().start_metadata_cleanup(cdl::nullable<unsigned long>(start), cdl::nullable<unsigned long>(end), false);
      });
      if (!accepted) throw api_error(503, "too many cleanups are waiting on " + d->options().root + "; try again later");
    }
    if (log != nullptr) log->info("Accepted a metadata cleanup of %lu-%lu", start, end);
    cdl::json_writer w;
    w.begin_object();
    w.key("accepted", true);
    w.value<bool>(true);
    w.end_object();
    send_json(res, 202, w);
  }));

  route(server, "PUT", "/v1/cleanup/metadata/automatic", guarded([this](const httplib::Request& req, httplib::Response& res) {
    const bool enabled = parse_automatic_request(req.target, req.body);
    for (capture_daemon* d : roots_for(req)) d->cleaner().switch_metadata_cleanup(enabled);
    cdl::json_writer w;
    w.begin_object();
    w.key("enabled", true);
    w.value<bool>(enabled);
    w.end_object();
    send_json(res, 200, w);
  }));

  route(server, "POST", "/v1/reconcile", guarded([this](const httplib::Request& req, httplib::Response& res) {
    parse_reconcile_request(req.target, req.body);
    std::vector<reconcile_result> results;
    for (capture_daemon* d : roots_for(req)) {
      const auto result = d->reconcile().request(std::chrono::seconds(60));
      if (!result) throw api_error(503, "the reconcile did not complete (the daemon may be stopping)");
      results.push_back(*result);
    }
    cdl::json_writer w;
    write_reconcile_result(w, add_reconciles(results));
    send_json(res, 200, w);
  }));

  route(server, "GET", "/v1/status", guarded([this](const httplib::Request& req, httplib::Response& res) {
    parse_plain_request(req.target);
    answer_status(res, one_root(req), roots_for(req));
  }));

  route(server, "GET", "/metrics", guarded([this](const httplib::Request& req, httplib::Response& res) {
    parse_plain_request(req.target);
    std::vector<root_sample> samples;
    for (capture_daemon* d : roots_for(req)) samples.push_back({d->options().root, d->sample_metrics()});
    res.status = 200;
    res.set_content(render_metrics(samples), "text/plain; version=0.0.4");
  }));

  install_packets_route(server, *this, _max_retrievals);
  install_status_page(server);
  install_operator_routes(server, *this);
  install_hold_routes(server, *this);
}

}  // namespace faitra_cli
