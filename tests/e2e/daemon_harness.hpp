// Running `faitra serve` in a test: the real binary as a child process on a
// Unix socket in a scratch directory, its log (standard output and error) in
// a file there, and small helpers for talking to it over HTTP and for
// writing captures the way the capture writer does.
//
// The child is always killed and reaped when the object is destroyed.
// Deadlines are generous because the sanitizer builds are slow; they only
// bound failing tests.
#pragma once

#include "support/temp_dir.hpp"
#include "support/tracker_harness.hpp"
#include "support/wait.hpp"

#include <httplib.h>
#include <rapidjson/document.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace faitra_e2e {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds READY_DEADLINE = 60s;
constexpr std::chrono::milliseconds EXIT_DEADLINE = 60s;

inline std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void write_text(const std::string& path, const std::string& text, mode_t mode = 0644) {
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
  }
  ::chmod(path.c_str(), mode);
}

inline bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// The capture attributes used throughout: hash "h<n>", first packet at n s,
// last packet at n s + 0.5 s (nanoseconds), created at second n.
inline faitra_test::capture_attributes attributes(unsigned long n, const std::string& hash = "") {
  return {hash.empty() ? "h" + std::to_string(n) : hash, n * 1000000000UL, n * 1000000000UL + 500000000UL,
          static_cast<long>(n)};
}

struct reply {
  int status = 0;  // 0 when the daemon could not be reached
  std::string body;
  rapidjson::Document json;
};

class daemon_process {
 public:
  // default_listen gives no --listen option at all: the daemon listens
  // where it does by default, reached at 127.0.0.1 on the logged port.
  enum class transport { unix_socket, tcp, default_listen };

  // Starts `faitra serve --listen unix:<scratch>/api.sock --log-stdout`
  // (or --listen 127.0.0.1:0, the port read back from the log) followed by
  // `args`, with `binary` as the faitra command.
  explicit daemon_process(std::vector<std::string> args, transport how = transport::unix_socket,
                          const std::string& binary = FAITRA_BINARY)
      : _scratch("faitra-e2e-daemon"), _tcp(how != transport::unix_socket) {
    // A request the daemon refuses before reading its body (401, 413) may
    // meet a closed connection; that must fail the request, not the test.
    ::signal(SIGPIPE, SIG_IGN);
    _socket = _scratch.file("api.sock");
    _log = _scratch.file("daemon.log");
    std::vector<std::string> full = {binary, "serve", "--log-stdout"};
    if (how != transport::default_listen) {
      full.insert(full.end(), {"--listen", _tcp ? "127.0.0.1:0" : "unix:" + _socket});
    }
    full.insert(full.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    _pid = ::fork();
    if (_pid == 0) {
      // Only async-signal-safe calls until exec. The daemon dies with the
      // test process, so a test that crashes leaves no daemon behind.
      if (::prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || ::getppid() != parent) ::_exit(126);
      const int log_fd = ::open(_log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (log_fd < 0 || ::dup2(log_fd, STDOUT_FILENO) < 0 || ::dup2(log_fd, STDERR_FILENO) < 0) ::_exit(127);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
  }
  ~daemon_process() {
    if (_pid > 0 && !_exited) {
      ::kill(_pid, SIGKILL);
      int status = 0;
      ::waitpid(_pid, &status, 0);
    }
    if (::testing::Test::HasFailure()) std::cout << "---- daemon log ----\n" << log() << "--------------------\n";
  }
  daemon_process(const daemon_process&) = delete;
  daemon_process& operator=(const daemon_process&) = delete;

  // Waits until /v1/status answers 200; false if the daemon exited first.
  bool wait_ready(const std::string& token = "") {
    if (_pid <= 0) return false;
    return faitra_test::wait_until(
        [&] {
          if (!alive()) return true;
          if (_tcp && _port == 0) {
            const std::string text = log();
            const std::string marker = "Listening on 127.0.0.1:";
            const auto at = text.find(marker);
            if (at == std::string::npos) return false;
            _port = std::stoi(text.substr(at + marker.size()));
          }
          return request("GET", "/v1/status", "", token).status == 200;
        },
        READY_DEADLINE) &&
           alive();
  }

  bool alive() {
    if (_exited) return false;
    int status = 0;
    if (::waitpid(_pid, &status, WNOHANG) == _pid) {
      _exited = true;
      _status = status;
    }
    return !_exited;
  }

  // Sends `sig` and waits for the exit; the exit code, or -1 if it did not
  // exit in time or was killed by a signal.
  int stop(int sig = SIGTERM, std::chrono::milliseconds deadline = EXIT_DEADLINE) {
    if (alive()) ::kill(_pid, sig);
    return wait_exit(deadline);
  }
  int wait_exit(std::chrono::milliseconds deadline = EXIT_DEADLINE) {
    if (!faitra_test::wait_until([&] { return !alive(); }, deadline)) return -1;
    return WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
  }

  std::string log() const { return read_text(_log); }
  bool log_has(const std::string& fragment) const { return log().find(fragment) != std::string::npos; }
  bool wait_log(const std::string& fragment, std::chrono::milliseconds deadline = 30s) const {
    return faitra_test::wait_until([&] { return log_has(fragment); }, deadline);
  }

  pid_t pid() const { return _pid; }
  const std::string& socket_path() const { return _socket; }
  std::string listen() const { return _tcp ? "127.0.0.1:" + std::to_string(_port) : "unix:" + _socket; }
  std::string scratch(const std::string& name) const { return _scratch.file(name); }

  reply request(const std::string& method, const std::string& target, const std::string& body = "",
                const std::string& token = "") const {
    httplib::Headers headers;
    if (!token.empty()) headers.emplace("Authorization", "Bearer " + token);
    return request_with(method, target, headers, body);
  }

  // A request with exactly these headers (besides httplib's own).
  reply request_with(const std::string& method, const std::string& target, const httplib::Headers& headers,
                     const std::string& body = "") const {
    httplib::Client client = _tcp ? httplib::Client("127.0.0.1", _port) : httplib::Client(_socket);
    if (!_tcp) client.set_address_family(AF_UNIX);
    client.set_connection_timeout(5s);
    client.set_read_timeout(90s);
    httplib::Result result = [&] {
      if (method == "GET") return client.Get(target, headers);
      if (method == "DELETE") return client.Delete(target, headers);
      if (method == "POST") return client.Post(target, headers, body, "application/json");
      if (method == "PUT") return client.Put(target, headers, body, "application/json");
      return client.Patch(target, headers, body, "application/json");
    }();
    reply r;
    if (!result) return r;
    r.status = result->status;
    r.body = result->body;
    r.json.Parse(r.body.c_str());
    return r;
  }

  // The catalogue as the API lists it: path -> record JSON text.
  std::map<std::string, std::string> catalogue(const std::string& token = "") const {
    std::map<std::string, std::string> out;
    const reply r = request("GET", "/v1/captures", "", token);
    if (r.status != 200 || !r.json.IsObject() || !r.json.HasMember("captures")) return out;
    for (const auto& record : r.json["captures"].GetArray()) {
      out.emplace(record["path"].GetString(), record_text(record));
    }
    return out;
  }

  // One status field (a path of member names), or -1.
  long status_number(const std::vector<std::string>& path) const {
    const reply r = request("GET", "/v1/status");
    if (r.status != 200) return -1;
    const rapidjson::Value* v = &r.json;
    for (const std::string& name : path) {
      if (!v->IsObject() || !v->HasMember(name.c_str())) return -1;
      v = &(*v)[name.c_str()];
    }
    return v->IsUint64() ? static_cast<long>(v->GetUint64()) : -1;
  }

  // The value of one line of /metrics ("name" or "name{labels}"), or -1.
  long metric(const std::string& series) const {
    const reply r = request("GET", "/metrics");
    const std::string prefix = series + " ";
    size_t at = 0;
    while (at < r.body.size()) {
      const size_t end = r.body.find('\n', at);
      const std::string line = r.body.substr(at, end == std::string::npos ? std::string::npos : end - at);
      if (line.rfind(prefix, 0) == 0) return std::stol(line.substr(prefix.size()));
      if (end == std::string::npos) break;
      at = end + 1;
    }
    return -1;
  }

  static std::string record_text(const rapidjson::Value& record) {
    std::string text;
    for (const char* name : {"key", "creation_ts", "start_ts", "end_ts", "file_size", "pending_deletion"}) {
      const rapidjson::Value& v = record[name];
      text += std::string(name) + "=";
      if (v.IsNull()) text += "null";
      else if (v.IsString()) text += v.GetString();
      else if (v.IsBool()) text += v.GetBool() ? "true" : "false";
      else if (v.IsUint64()) text += std::to_string(v.GetUint64());
      text += " ";
    }
    return text;
  }

 private:
  faitra_test::temp_dir _scratch;
  std::string _socket;
  std::string _log;
  bool _tcp;
  int _port = 0;
  pid_t _pid = -1;
  bool _exited = false;
  int _status = 0;
};

struct run_result {
  int status = -1;  // exit status, or -1 when killed by a signal
  std::string out;
  std::string err;
};

// Starts `faitra <args>`; its standard output and error go to files in
// `scratch`, read back by finish().
inline pid_t spawn(const std::vector<std::string>& args, const std::string& scratch) {
  std::vector<std::string> full = {FAITRA_BINARY};
  full.insert(full.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : full) argv.push_back(a.data());
  argv.push_back(nullptr);
  const std::string out = scratch + "/stdout", err = scratch + "/stderr";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const int spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  return spawned == 0 ? pid : -1;
}

inline run_result finish(pid_t pid, const std::string& scratch) {
  run_result result;
  int status = 0;
  if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) result.status = WEXITSTATUS(status);
  result.out = read_text(scratch + "/stdout");
  result.err = read_text(scratch + "/stderr");
  return result;
}

inline run_result run(const std::vector<std::string>& args) {
  faitra_test::temp_dir scratch("faitra-e2e-client");
  return finish(spawn(args, scratch.path()), scratch.path());
}

// A client subcommand's exit code and standard output.
inline std::pair<int, std::string> run_client(const std::vector<std::string>& args) {
  run_result r = run(args);
  return {r.status, std::move(r.out)};
}

// `faitra scan DIR` in the catalogue form of daemon_process::catalogue().
inline std::map<std::string, std::string> fresh_scan(const std::string& dir) {
  std::map<std::string, std::string> records;
  std::istringstream lines(run({"scan", dir}).out);
  for (std::string line; std::getline(lines, line);) {
    rapidjson::Document record;
    record.Parse(line.c_str());
    if (record.IsObject()) records.emplace(record["path"].GetString(), daemon_process::record_text(record));
  }
  return records;
}

// A tmpfs for one test, or a skip when the process may not mount.
#define FAITRA_E2E_TMPFS(name, bytes)          \
  faitra_test::tmpfs_mount name(bytes);        \
  if (!name.mounted()) GTEST_SKIP() << name.reason()

}  // namespace faitra_e2e
