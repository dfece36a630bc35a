// GET /v1/status (described in docs/api.md): the daemon's figures, the
// first (or named) root's at the top level as with one root, and each
// root's in `roots`; and the JSON of a reconcile's result, which POST
// /v1/reconcile answers too.
//
// Thread-safety: as http_api; reads only the daemons' thread-safe state.
#pragma once

#include <faitra/host/daemon.hpp>
#include <faitra/host/reconcile.hpp>

#include <cdl/json_writer.hpp>

#include <httplib.h>

#include <vector>

namespace faitra_cli {

// 200 with the status: `top` at the top level, `roots` in the roots array.
void answer_status(httplib::Response& res, faitra_host::capture_daemon& top,
                   const std::vector<faitra_host::capture_daemon*>& roots);

void write_reconcile_result(cdl::json_writer& w, const faitra_host::reconcile_result& r);

// The sum of several roots' reconciles, as one: counts added, problems put
// together, the latest end.
faitra_host::reconcile_result add_reconciles(const std::vector<faitra_host::reconcile_result>& results);

}  // namespace faitra_cli
