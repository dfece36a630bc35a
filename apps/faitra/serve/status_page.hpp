// The status page at `/`: one HTML page, its style sheet and its script,
// compiled into the binary (serve/status_page/, embedded by
// apps/CMakeLists.txt), nothing fetched from elsewhere. The script polls the
// JSON API with the token the operator types in (kept in the tab only), so
// the three files themselves are served without a token: they hold no data.
// A Content-Security-Policy keeps the page to its own origin.
//
// Thread-safety: the handlers only read constant texts.
#pragma once

#include <httplib.h>

#include <set>
#include <string>

namespace faitra_cli {

extern const std::set<std::string> STATUS_PAGE_PATHS;

void install_status_page(httplib::Server& server);

}  // namespace faitra_cli
