// Reaching the daemon from a client subcommand: the --listen and
// --token-file options turned into an HTTP client and the headers every
// request carries.
//
// Thread-safety: pure function; the client belongs to its caller.
#pragma once

#include <httplib.h>

#include <chrono>
#include <memory>
#include <string>

namespace faitra_cli {

struct daemon_client {
  std::unique_ptr<httplib::Client> client;
  httplib::Headers headers;  // the bearer token, when there is one
};

// Raises std::runtime_error naming the option when --listen cannot be
// parsed or the token file cannot be read. Ignores SIGPIPE: a daemon that
// refuses a request before reading its body closes the connection, and
// writing on must fail the request, not kill the client.
daemon_client connect_daemon(const std::string& listen, const std::string& token_file,
                             std::chrono::seconds read_timeout);

}  // namespace faitra_cli
