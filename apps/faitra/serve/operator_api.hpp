// The operator's endpoints of the HTTP API (docs/api.md): the automatic
// cleanup's plan, the last cleanup runs, the timeline of captures, and the
// age cleanup's dry run; also the JSON of the retention window that
// /v1/status carries.
//
// Thread-safety: as http_api: handlers run on the server's threads and use
// only the daemon's thread-safe operations.
#pragma once

#include "serve/api_request.hpp"
#include "serve/http_api.hpp"
#include <faitra/host/catalogue_views.hpp>
#include <faitra/host/daemon.hpp>

#include <cdl/json_writer.hpp>

#include <httplib.h>

#include <set>
#include <string>

namespace faitra_cli {

// The paths installed by install_operator_routes.
extern const std::set<std::string> OPERATOR_PATHS;

// The routes, each behind api.guarded().
// They answer for one root (http_api::one_root).
void install_operator_routes(httplib::Server& server, const http_api& api);

// 200 with what the age cleanup `age` would do, changing nothing.
void answer_age_dry_run(httplib::Response& res, faitra_host::capture_daemon& daemon,
                        const age_cleanup_request& age);

// {"oldest_start", "newest_start", "span_seconds"}
void write_retention(cdl::json_writer& w, const faitra_host::retention_window& window);

}  // namespace faitra_cli
