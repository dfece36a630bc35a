// The daemon's listening socket, opened before anything else starts so that
// a daemon that cannot listen says why and exits at once, before it scans.
//
// TCP: the host is resolved (numeric or by name) and the first address that
// can be bound is listened on; port 0 picks a free port. The socket has
// SO_REUSEADDR (a restart does not wait for connections in TIME_WAIT) but
// not SO_REUSEPORT, so a second daemon on the same port is refused rather
// than sharing it; TCP_NODELAY is set for the accepted connections to
// inherit.
//
// Unix: a socket file left by an earlier run is removed first, but only
// when nobody accepts connections on it any more; any other file at the
// path is refused.
//
// Failures give -1 and `error` with the system's reason ("Address already
// in use", "Cannot assign requested address", "No such file or directory",
// the resolver's text).
//
// Thread-safety: no shared state.
#pragma once

#include <faitra/host/daemon_address.hpp>

#include <string>

namespace faitra_host {

// A listening socket descriptor (close-on-exec), or -1 with `error` set.
// `bound_port` is the TCP port listened on (0 for a Unix socket).
int open_listen_socket(const listen_address& address, int& bound_port, std::string& error);

}  // namespace faitra_host
