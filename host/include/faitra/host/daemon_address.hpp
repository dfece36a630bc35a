// Where the daemon listens and how clients reach it: the --listen and
// --token-file options shared by `faitra serve` and the client subcommands.
#pragma once

#include <optional>
#include <string>

namespace faitra_host {

constexpr const char* DEFAULT_LISTEN = "127.0.0.1:8470";

struct listen_address {
  bool unix_socket = false;
  std::string host;  // host name or address (without brackets), or the socket path
  int port = 0;

  // The host as it is written before ":PORT" (IPv6 addresses in brackets).
  std::string host_for_display() const;
};

// "HOST:PORT", "[IPV6]:PORT" or "unix:PATH". False, with `error` set, when
// the text is none of these or the port is not 0 to 65535.
bool parse_listen_address(const std::string& text, listen_address& out, std::string& error);

// The token in `path`, without surrounding white space; nothing (with
// `error` set) when the file cannot be read or holds no token.
std::optional<std::string> read_token_file(const std::string& path, std::string& error);

}  // namespace faitra_host
