// Running the real faitra command in a test: `faitra serve` as a child
// process on a Unix socket (or TCP) in a scratch directory, its output in a
// log file there, HTTP requests to it; and one-shot runs of the other
// subcommands. The child is killed and reaped with the object. Deadlines
// are generous for the sanitizer builds; they only bound failing tests.
#pragma once

#include "support/files.hpp"
#include "support/wait.hpp"

#include <httplib.h>
#include <rapidjson/document.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/statvfs.h>
#include <sys/wait.h>

#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

extern char** environ;

namespace faitra_e2e {

using namespace std::chrono_literals;
using faitra_test::attributes;
using faitra_test::exists;
using faitra_test::wait_until;
using faitra_test::write_capture;

inline std::string read_text(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}
inline void write_text(const std::string& path, const std::string& text, mode_t mode = 0644) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  ::chmod(path.c_str(), mode);
}
inline httplib::Headers bearer(const std::string& token) { return {{"Authorization", "Bearer " + token}}; }

// A listed or scanned record as one text, so that catalogues compare whole.
inline std::string record_text(const rapidjson::Value& r) {
  std::string text;
  for (const char* name : {"key", "creation_ts", "start_ts", "end_ts", "file_size", "pending_deletion"}) {
    const rapidjson::Value& v = r[name];
    text += std::string(name) + "=" +
            (v.IsString() ? v.GetString() : v.IsBool() ? (v.GetBool() ? "true" : "false")
                                          : v.IsUint64() ? std::to_string(v.GetUint64()) : "null") + " ";
  }
  return text;
}

struct reply {
  int status = 0;  // 0: the daemon could not be reached
  std::string body;
  rapidjson::Document json;
};

class daemon_process {
 public:
  enum class transport { unix_socket, tcp, default_listen };  // the last passes no --listen

  explicit daemon_process(std::vector<std::string> args, transport how = transport::unix_socket,
                          const char* binary = FAITRA_BINARY)
      : _tcp(how != transport::unix_socket) {
    ::signal(SIGPIPE, SIG_IGN);  // a refused request may meet a closed connection
    std::vector<std::string> full = {binary, "serve", "--log-stdout"};
    if (how != transport::default_listen) full.insert(full.end(), {"--listen", _tcp ? "127.0.0.1:0" : listen()});
    full.insert(full.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : full) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    const std::string log_path = _scratch.file("daemon.log");
    if ((_pid = ::fork()) != 0) return;
    // The child: async-signal-safe calls only; it dies with the test.
    const int fd = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (::prctl(PR_SET_PDEATHSIG, SIGKILL) == 0 && ::getppid() == parent && fd >= 0 && ::dup2(fd, 1) >= 0 &&
        ::dup2(fd, 2) >= 0) {
      ::execv(argv[0], argv.data());
    }
    ::_exit(127);
  }
  ~daemon_process() {
    if (alive() && ::kill(_pid, SIGKILL) == 0) ::waitpid(_pid, nullptr, 0);
    if (::testing::Test::HasFailure()) std::cout << "---- daemon log ----\n" << log() << "--------------------\n";
  }
  daemon_process(const daemon_process&) = delete;
  daemon_process& operator=(const daemon_process&) = delete;

  // Waits until /v1/status answers 200; false if the daemon exited first.
  bool wait_ready(const std::string& token = "") {
    return wait_until(
               [&] {
                 const auto at = log().find("Listening on 127.0.0.1:");
                 if (_tcp && _port == 0 && at != std::string::npos) _port = std::stoi(log().substr(at + 23));
                 return !alive() || request("GET", "/v1/status", "", bearer(token)).status == 200;
               },
               60s) &&
           alive();
  }
  bool alive() {
    if (!_exited && _pid > 0 && ::waitpid(_pid, &_status, WNOHANG) == _pid) _exited = true;
    return _pid > 0 && !_exited;
  }
  // Sends `sig` and waits: the exit code, or -1 if killed or still running.
  int stop(int sig = SIGTERM) {
    if (alive()) ::kill(_pid, sig);
    return wait_exit();
  }
  int wait_exit() {
    return wait_until([&] { return !alive(); }, 60s) && WIFEXITED(_status) ? WEXITSTATUS(_status) : -1;
  }

  std::string log() const { return read_text(_scratch.file("daemon.log")); }
  bool log_has(const std::string& fragment) const { return log().find(fragment) != std::string::npos; }
  bool wait_log(const std::string& fragment) const {
    return wait_until([&] { return log_has(fragment); });
  }
  pid_t pid() const { return _pid; }
  std::string socket_path() const { return _scratch.file("api.sock"); }
  std::string listen() const { return _tcp ? "127.0.0.1:" + std::to_string(_port) : "unix:" + socket_path(); }
  std::string scratch(const std::string& name) const { return _scratch.file(name); }

  reply request(const std::string& method, const std::string& target, const std::string& body = "",
                const httplib::Headers& headers = {}) const {
    httplib::Client client = _tcp ? httplib::Client("127.0.0.1", _port) : httplib::Client(socket_path());
    if (!_tcp) client.set_address_family(AF_UNIX);
    client.set_read_timeout(90s);
    const auto result = method == "GET"      ? client.Get(target, headers)
                        : method == "DELETE" ? client.Delete(target, headers)
                        : method == "POST"   ? client.Post(target, headers, body, "application/json")
                        : method == "PUT"    ? client.Put(target, headers, body, "application/json")
                                             : client.Patch(target, headers, body, "application/json");
    reply r;
    if (!result) return r;
    r.status = result->status;
    r.body = result->body;
    r.json.Parse(r.body.c_str());
    return r;
  }
  // The catalogue as the API lists it: path -> record_text.
  std::map<std::string, std::string> catalogue(const std::string& token = "") const {
    std::map<std::string, std::string> out;
    const reply r = request("GET", "/v1/captures", "", bearer(token));
    if (r.status != 200) return out;
    for (const auto& record : r.json["captures"].GetArray()) {
      out.emplace(record["path"].GetString(), record_text(record));
    }
    return out;
  }
  // One number of /v1/status, by the path of member names to it, or -1.
  long status_number(const std::vector<std::string>& path) const {
    const reply r = request("GET", "/v1/status");
    const rapidjson::Value* v = &r.json;
    for (const auto& name : path) v = v->IsObject() && v->HasMember(name.c_str()) ? &(*v)[name.c_str()] : nullptr;
    return v != nullptr && v->IsUint64() ? static_cast<long>(v->GetUint64()) : -1;
  }
  // The value of one /metrics series ("name" or "name{labels}"), or -1.
  long metric(const std::string& series) const {
    std::istringstream lines(request("GET", "/metrics").body);
    for (std::string line; std::getline(lines, line);) {
      if (line.starts_with(series + " ")) return std::stol(line.substr(series.size() + 1));
    }
    return -1;
  }

 private:
  faitra_test::temp_dir _scratch{"faitra-e2e-daemon"};
  bool _tcp, _exited = false;
  int _port = 0, _status = 0;
  pid_t _pid = -1;
};

struct run_result {
  int status = -1;  // the exit status, or -1 when killed by a signal
  std::string out, err;
};

// Starts `faitra <args>`; its output and errors go to files in `scratch`,
// read back by finish().
inline pid_t spawn(std::vector<std::string> args, const std::string& scratch) {
  args.insert(args.begin(), FAITRA_BINARY);
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, (scratch + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, (scratch + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t pid = -1;
  const bool spawned = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0;
  posix_spawn_file_actions_destroy(&actions);
  return spawned ? pid : -1;
}

inline run_result finish(pid_t pid, const std::string& scratch) {
  int status = 0;
  const bool exited = pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status);
  return {exited ? WEXITSTATUS(status) : -1, read_text(scratch + "/out"), read_text(scratch + "/err")};
}

// Runs `faitra <args>` to its end, its output and errors kept apart.
inline run_result run(std::vector<std::string> args) {
  faitra_test::temp_dir scratch("faitra-e2e-run");
  return finish(spawn(std::move(args), scratch.path()), scratch.path());
}

// `faitra scan DIR` in the form of daemon_process::catalogue().
inline std::map<std::string, std::string> fresh_scan(const std::string& dir) {
  std::map<std::string, std::string> records;
  std::istringstream lines(run({"scan", dir}).out);
  for (std::string line; std::getline(lines, line);) {
    rapidjson::Document record;
    record.Parse(line.c_str());
    records.emplace(record["path"].GetString(), record_text(record));
  }
  return records;
}

// The fraction of the file system of `dir` in use, as the daemon counts it.
inline double usage(const std::string& dir) {
  struct statvfs s {};
  ::statvfs(dir.c_str(), &s);
  return static_cast<double>(s.f_blocks - s.f_bfree) / static_cast<double>(s.f_blocks);
}

// A tmpfs for one test, or a skip when the process may not mount.
#define FAITRA_E2E_TMPFS(name, bytes)   \
  faitra_test::tmpfs_mount name(bytes); \
  if (!name.mounted()) GTEST_SKIP() << name.reason()

}  // namespace faitra_e2e
