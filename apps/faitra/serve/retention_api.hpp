// The API's side of retention: the evidence holds' routes (POST, GET and
// DELETE /v1/holds) and the status sections of the max age, the hard limit
// and the holds (described in docs/api.md).
//
// Thread-safety: as http_api; handlers use only the daemon's thread-safe
// operations.
#pragma once

#include "serve/http_api.hpp"

#include <faitra/host/daemon.hpp>

#include <cdl/json_writer.hpp>

#include <httplib.h>

namespace faitra_cli {

// The routes, each behind api.guarded() and registered through api.route().
// Holds belong to one root (http_api::one_root).
void install_hold_routes(httplib::Server& server, http_api& api);

// Writes the members "max_age", "hard_limit" and "holds" of /v1/status.
void write_retention_status(cdl::json_writer& w, faitra_host::capture_daemon& daemon);

}  // namespace faitra_cli
