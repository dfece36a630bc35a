// The daemon's HTTP JSON API (described in docs/api.md).
//
// Every response is JSON ({"error": "..."} for errors) except /metrics.
// Input is checked (api_request.hpp) before anything changes: unknown or
// repeated query parameters, numbers that are not plain non-negative decimal
// integers or do not fit 64 bits, inverted ranges, unknown modes and
// malformed, oversized or unexpected bodies are refused with 400 (413 for a
// body above MAX_BODY_BYTES). With a token, every request must carry
// "Authorization: Bearer <token>" or gets 401.
//
// Thread-safety: handlers run on the server's threads and only use the
// daemon's thread-safe operations.
#pragma once

#include "serve/api_request.hpp"
#include <faitra/host/daemon.hpp>

#include <httplib.h>

#include <functional>
#include <optional>
#include <string>

namespace faitra_cli {

using api_handler = std::function<void(const httplib::Request&, httplib::Response&)>;

class http_api {
 public:
  // Bodies above this are refused by httplib without being read.
  static constexpr size_t HTTPLIB_BODY_LIMIT = 1024 * 1024;
  // Threads for everything but packet retrievals, which get one each on
  // top, so that streaming never holds up the catalogue or the cleanups.
  static constexpr size_t SERVER_THREADS = 4;
  static constexpr unsigned DEFAULT_MAX_RETRIEVALS = 2;

  http_api(faitra_host::capture_daemon& daemon, std::optional<std::string> token,
           unsigned max_retrievals = DEFAULT_MAX_RETRIEVALS);

  // Installs the routes, the token check, the error forms and the limits.
  void install(httplib::Server& server);

  // `h` behind the token check, with api_error mapped to its status.
  api_handler guarded(api_handler h) const;

 private:
  faitra_host::capture_daemon& _daemon;
  std::optional<std::string> _token;
  unsigned _max_retrievals;
};

// GET /v1/packets (packets_endpoint.cpp).
void install_packets_route(httplib::Server& server, const http_api& api, faitra_host::capture_daemon& daemon,
                           unsigned max_retrievals);

}  // namespace faitra_cli
