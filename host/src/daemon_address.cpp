#include <faitra/host/daemon_address.hpp>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace faitra_host {

std::string listen_address::host_for_display() const {
  if (unix_socket) return "unix:" + host;
  return host.find(':') != std::string::npos ? "[" + host + "]" : host;
}

bool parse_listen_address(const std::string& text, listen_address& out, std::string& error) {
  out = listen_address{};
  if (text.rfind("unix:", 0) == 0) {
    out.unix_socket = true;
    out.host = text.substr(5);
    if (out.host.empty()) {
      error = "unix: needs a socket path";
      return false;
    }
    return true;
  }
  const auto colon = text.rfind(':');
  if (colon == std::string::npos || colon == 0) {
    error = "expected HOST:PORT or unix:PATH, got '" + text + "'";
    return false;
  }
  std::string host = text.substr(0, colon);
  const std::string port = text.substr(colon + 1);
  if (host.front() == '[') {
    if (host.back() != ']' || host.size() < 3) {
      error = "unbalanced brackets in '" + text + "'";
      return false;
    }
    host = host.substr(1, host.size() - 2);
  } else if (host.find(':') != std::string::npos) {
    error = "write an IPv6 address in brackets: [ADDRESS]:PORT";
    return false;
  }
  if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos ||
      std::stoul(port) > 65535) {
    error = "the port must be a number from 0 to 65535, got '" + port + "'";
    return false;
  }
  out.host = host;
  out.port = static_cast<int>(std::stoul(port));
  return true;
}

std::optional<std::string> read_token_file(const std::string& path, std::string& error) {
  std::ifstream in(path);
  if (!in) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  std::stringstream content;
  content << in.rdbuf();
  std::string token = content.str();
  const auto first = token.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) {
    error = path + " holds no token";
    return std::nullopt;
  }
  token = token.substr(first, token.find_last_not_of(" \t\r\n") - first + 1);
  if (token.find_first_of(" \t\r\n") != std::string::npos) {
    error = path + " must hold one token without spaces";
    return std::nullopt;
  }
  return token;
}

}  // namespace faitra_host
