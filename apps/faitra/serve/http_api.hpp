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

#include <optional>
#include <string>

namespace faitra_cli {

class http_api {
 public:
  // Bodies above this are refused by httplib without being read.
  static constexpr size_t HTTPLIB_BODY_LIMIT = 1024 * 1024;
  static constexpr size_t SERVER_THREADS = 4;

  http_api(faitra_host::capture_daemon& daemon, std::optional<std::string> token);

  // Installs the routes, the token check, the error forms and the limits.
  void install(httplib::Server& server);

 private:
  faitra_host::capture_daemon& _daemon;
  std::optional<std::string> _token;
};

}  // namespace faitra_cli
