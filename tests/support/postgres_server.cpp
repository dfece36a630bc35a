#include "support/postgres_server.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

extern char** environ;

namespace faitra_test {

namespace {

const char* const PASSWORD = "fleet-test-password";

// The newest installed PostgreSQL's program directory, or "".
std::string find_bindir() {
  std::string best;
  int best_version = 0;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/usr/lib/postgresql", ignored)) {
    const std::string bin = entry.path().string() + "/bin";
    const int version = std::atoi(entry.path().filename().c_str());
    if (::access((bin + "/initdb").c_str(), X_OK) == 0 && ::access((bin + "/pg_ctl").c_str(), X_OK) == 0 &&
        version > best_version) {
      best = bin;
      best_version = version;
    }
  }
  return best;
}

int free_port() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  int port = 0;
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    port = ntohs(address.sin_port);
  }
  ::close(fd);
  return port;
}

void write_private(const std::string& path, const std::string& text, uid_t owner) {
  std::ofstream(path) << text << "\n";
  ::chmod(path.c_str(), 0600);
  if (::chown(path.c_str(), owner, static_cast<gid_t>(-1)) != 0) {
    // Owned by root then; only initdb's copy needs another owner.
  }
}

}  // namespace

postgres_server::postgres_server() : _dir("faitra-pg") {
  _bin = find_bindir();
  if (_bin.empty()) {
    _reason = "PostgreSQL is not installed (no /usr/lib/postgresql/*/bin/initdb); install postgresql";
    return;
  }
  uid_t uid = ::geteuid();
  if (uid == 0) {
    for (const char* name : {"postgres", "nobody"}) {
      if (const passwd* user = ::getpwnam(name)) {
        _user = name;
        uid = user->pw_uid;
        break;
      }
    }
    if (_user.empty() || ::chown(_dir.path().c_str(), uid, static_cast<gid_t>(-1)) != 0) {
      _reason = "running as root without a postgres or nobody user to run the server as";
      return;
    }
  }
  _password_file = _dir.file("password");
  write_private(_password_file, PASSWORD, ::geteuid());
  const std::string initdb_password = _dir.file("initdb-password");
  write_private(initdb_password, PASSWORD, uid);
  _port = free_port();
  if (!run({_bin + "/initdb", "-D", _dir.file("data"), "-U", "faitra", "-A", "scram-sha-256",
            "--pwfile=" + initdb_password, "-E", "UTF8", "--no-sync"})) {
    _reason = "initdb failed; see " + _dir.file("server.log");
    return;
  }
  std::filesystem::remove(initdb_password);
  _available = start();
  if (!_available) _reason = "the server did not start; see " + _dir.file("server.log");
}

postgres_server::~postgres_server() {
  if (_running) run({_bin + "/pg_ctl", "-D", _dir.file("data"), "-m", "immediate", "-w", "stop"});
}

std::string postgres_server::conninfo() const {
  return "host=127.0.0.1 port=" + std::to_string(_port) + " user=faitra dbname=postgres";
}

bool postgres_server::start() {
  _running = run({_bin + "/pg_ctl", "-D", _dir.file("data"), "-l", _dir.file("server.log"), "-w", "-t", "120", "-o",
                  "-p " + std::to_string(_port) + " -c listen_addresses=127.0.0.1 -k " + _dir.path() +
                      " -c fsync=off -c max_connections=20",
                  "start"});
  return _running;
}

bool postgres_server::stop() {
  const bool stopped = run({_bin + "/pg_ctl", "-D", _dir.file("data"), "-m", "fast", "-w", "-t", "120", "stop"});
  if (stopped) _running = false;
  return stopped;
}

bool postgres_server::run(const std::vector<std::string>& args) {
  std::vector<std::string> full;
  if (!_user.empty()) full = {"runuser", "-u", _user, "--"};
  full.insert(full.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : full) argv.push_back(a.data());
  argv.push_back(nullptr);
  const std::string log = _dir.file("commands.log");
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
  posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
  posix_spawn_file_actions_addchdir_np(&actions, _dir.path().c_str());
  pid_t pid = -1;
  const int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  int status = 0;
  return spawned == 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace faitra_test
