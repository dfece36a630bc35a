// A PostgreSQL server of a test's own: initdb into a fresh directory,
// started with pg_ctl on a free TCP port of 127.0.0.1 with password
// authentication (the password in a file, the way the daemons take it),
// stopped and removed on destruction. As root, the server runs as the
// `postgres` user (or `nobody`): PostgreSQL refuses to run as root.
//
// available() is false, and reason() says why, when PostgreSQL's programs
// are not installed or the server cannot start; callers GTEST_SKIP then.
#pragma once

#include "support/files.hpp"

#include <string>
#include <vector>

namespace faitra_test {

class postgres_server {
 public:
  postgres_server();
  ~postgres_server();
  postgres_server(const postgres_server&) = delete;
  postgres_server& operator=(const postgres_server&) = delete;

  bool available() const { return _available; }
  const std::string& reason() const { return _reason; }
  // libpq connection words without the password.
  std::string conninfo() const;
  const std::string& password_file() const { return _password_file; }

  // pg_ctl stop (fast) and start; both wait until done. False on failure.
  bool stop();
  bool start();

 private:
  bool run(const std::vector<std::string>& args);

  temp_dir _dir;
  std::string _bin;
  std::string _user;
  std::string _password_file;
  int _port = 0;
  bool _available = false;
  bool _running = false;
  std::string _reason;
};

}  // namespace faitra_test
