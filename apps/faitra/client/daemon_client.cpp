#include "client/daemon_client.hpp"

#include <faitra/host/daemon_address.hpp>

#include <signal.h>
#include <sys/socket.h>

#include <stdexcept>

namespace faitra_cli {

daemon_client connect_daemon(const std::string& listen, const std::string& token_file,
                             std::chrono::seconds read_timeout) {
  faitra_host::listen_address address;
  std::string error;
  if (!faitra_host::parse_listen_address(listen, address, error)) throw std::runtime_error("--listen: " + error);
  daemon_client out;
  if (!token_file.empty()) {
    const auto token = faitra_host::read_token_file(token_file, error);
    if (!token) throw std::runtime_error("--token-file: " + error);
    out.headers.emplace("Authorization", "Bearer " + *token);
  }
  ::signal(SIGPIPE, SIG_IGN);
  if (address.unix_socket) {
    out.client = std::make_unique<httplib::Client>(address.host);
    out.client->set_address_family(AF_UNIX);
  } else {
    out.client = std::make_unique<httplib::Client>(address.host, address.port);
  }
  out.client->set_connection_timeout(std::chrono::seconds(5));
  out.client->set_read_timeout(read_timeout);
  return out;
}

}  // namespace faitra_cli
