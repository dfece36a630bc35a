#include <faitra/host/listen_socket.hpp>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace faitra_host {

namespace {

int bound_port_of(int fd) {
  sockaddr_storage address{};
  socklen_t length = sizeof address;
  if (::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
  if (address.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&address)->sin_port);
  if (address.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&address)->sin6_port);
  return 0;
}

// Binds `fd` to `address` and listens; false with errno set otherwise.
bool bind_and_listen(int fd, const sockaddr* address, socklen_t length) {
  return ::bind(fd, address, length) == 0 && ::listen(fd, SOMAXCONN) == 0;
}

int fail(int fd, std::string& error, const std::string& reason) {
  if (fd >= 0) ::close(fd);
  error = reason;
  return -1;
}

int open_tcp(const listen_address& address, int& bound_port, std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE;
  addrinfo* found = nullptr;
  const int resolved = ::getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
  if (resolved != 0) {
    return fail(-1, error, resolved == EAI_SYSTEM ? std::strerror(errno) : ::gai_strerror(resolved));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> results(found, ::freeaddrinfo);
  int last_error = EADDRNOTAVAIL;
  for (const addrinfo* candidate = found; candidate != nullptr; candidate = candidate->ai_next) {
    const int fd = ::socket(candidate->ai_family, candidate->ai_socktype | SOCK_CLOEXEC, candidate->ai_protocol);
    if (fd < 0) {
      last_error = errno;
      continue;
    }
    const int yes = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (bind_and_listen(fd, candidate->ai_addr, candidate->ai_addrlen)) {
      bound_port = bound_port_of(fd);
      return fd;
    }
    last_error = errno;
    ::close(fd);
  }
  return fail(-1, error, std::strerror(last_error));
}

int open_unix(const std::string& path, std::string& error) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    return fail(-1, error, "the socket path is longer than " + std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(-1, error, std::strerror(errno));

  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0) {
    if (!S_ISSOCK(status.st_mode)) return fail(fd, error, path + " exists and is not a socket");
    // A live socket belongs to a running daemon: never take it over.
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live = probe >= 0 && ::connect(probe, generic, sizeof address) == 0;
    if (probe >= 0) ::close(probe);
    if (live) return fail(fd, error, std::string(std::strerror(EADDRINUSE)) + " (another process accepts on it)");
    ::unlink(path.c_str());
  }
  if (!bind_and_listen(fd, generic, sizeof address)) return fail(fd, error, std::strerror(errno));
  return fd;
}

}  // namespace

int open_listen_socket(const listen_address& address, int& bound_port, std::string& error) {
  bound_port = 0;
  return address.unix_socket ? open_unix(address.host, error) : open_tcp(address, bound_port, error);
}

}  // namespace faitra_host
