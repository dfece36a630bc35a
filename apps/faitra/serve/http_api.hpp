// The daemon's HTTP JSON API (described in docs/api.md).
//
// Every response is JSON ({"error": "..."} for errors) except /metrics.
// Input is checked (api_request.hpp) before anything changes: unknown or
// repeated query parameters, numbers that are not plain non-negative decimal
// integers or do not fit 64 bits, inverted ranges, unknown modes and
// malformed, oversized or unexpected bodies are refused with 400 (413 for a
// body above MAX_BODY_BYTES). With a token, every request but GET /healthz
// must carry "Authorization: Bearer <token>" or gets 401.
//
// A POST or PUT without Content-Length and Transfer-Encoding has an empty
// body (HTTP/1.1); httplib would refuse it, so such requests are routed
// before httplib reads a body, through the same handlers.
//
// With several capture roots, a request may name one with root=DIR (404
// when no root has that directory). Without it, the listing, the lookup,
// the deletions, the packets, the cleanups and the reconcile act across
// every root, and the other views answer for the first root.
//
// Thread-safety: handlers run on the server's threads and only use the
// daemons' thread-safe operations; set_token may be called from any thread.
#pragma once

#include "serve/api_request.hpp"
#include <faitra/host/capture_roots.hpp>

#include <httplib.h>

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

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

  http_api(faitra_host::capture_roots& roots, std::optional<std::string> token,
           unsigned max_retrievals = DEFAULT_MAX_RETRIEVALS);

  // Installs the routes, the token check, the error forms and the limits.
  void install(httplib::Server& server);

  // `h` behind the token check, with api_error mapped to its status.
  api_handler guarded(api_handler h) const;

  // Replaces the token that requests must carry from now on.
  void set_token(std::string token);

  // The root a request acts on: the one its root= names, or the first.
  // Raises api_error (400, or 404 naming the roots).
  faitra_host::capture_daemon& one_root(const httplib::Request& req) const;
  // The roots a request answers across: the one its root= names, or all.
  std::vector<faitra_host::capture_daemon*> roots_for(const httplib::Request& req) const;
  faitra_host::capture_roots& roots() const { return _roots; }

  // Registers `h` for `method` and `path` with the server and in _routes
  // (a route whose requests may come without a body must be).
  void route(httplib::Server& server, const std::string& method, const std::string& path, api_handler h);

 private:
  std::optional<std::string> token() const;

  faitra_host::capture_roots& _roots;
  mutable std::mutex _token_mutex;
  std::optional<std::string> _token;
  unsigned _max_retrievals;
  std::map<std::pair<std::string, std::string>, api_handler> _routes;  // (method, path)
};

// GET /v1/packets (packets_endpoint.cpp).
void install_packets_route(httplib::Server& server, const http_api& api, unsigned max_retrievals);

}  // namespace faitra_cli
