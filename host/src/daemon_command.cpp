#include <faitra/host/daemon_command.hpp>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

extern char** environ;

namespace faitra_host {

namespace {

struct fd_holder {
  int fd = -1;
  ~fd_holder() { reset(); }
  void reset() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

std::string trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos) return "";
  const auto last = text.find_last_not_of(" \t\r\n");
  return text.substr(first, last - first + 1);
}

std::string describe_status(int status) {
  if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return "ended abnormally";
}

}  // namespace

std::vector<std::string> split_command_line(const std::string& command_line) {
  std::vector<std::string> out;
  std::string piece;
  for (const char c : command_line) {
    if (c == ' ' || c == '\t') {
      if (!piece.empty()) out.push_back(piece);
      piece.clear();
    } else {
      piece.push_back(c);
    }
  }
  if (!piece.empty()) out.push_back(piece);
  return out;
}

command_runner::command_runner(const std::string& command_line, std::chrono::milliseconds time_limit)
    : _argv(split_command_line(command_line)), _time_limit(time_limit) {
  if (_argv.empty()) throw std::invalid_argument("the command is empty");
}

command_result command_runner::run(const std::vector<std::string>& extra) const {
  if (_cancelled.load()) return {false, "not run: the daemon is stopping"};

  std::vector<std::string> args = _argv;
  args.insert(args.end(), extra.begin(), extra.end());
  std::vector<char*> c_args;
  for (std::string& a : args) c_args.push_back(a.data());
  c_args.push_back(nullptr);

  int pipe_fds[2];
  if (::pipe2(pipe_fds, O_CLOEXEC) != 0) return {false, std::string("pipe: ") + std::strerror(errno)};
  fd_holder read_end{pipe_fds[0]};
  fd_holder write_end{pipe_fds[1]};

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, write_end.fd, STDERR_FILENO);
  posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);

  sigset_t empty_mask;
  sigemptyset(&empty_mask);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int s : {SIGTERM, SIGINT, SIGPIPE, SIGHUP, SIGCHLD}) sigaddset(&defaults, s);
  posix_spawnattr_setsigmask(&attributes, &empty_mask);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setpgroup(&attributes, 0);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);

  pid_t pid = -1;
  const int spawned = ::posix_spawnp(&pid, c_args[0], &actions, &attributes, c_args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  write_end.reset();
  if (spawned != 0) return {false, "cannot run " + _argv[0] + ": " + std::strerror(spawned)};

  const auto deadline = std::chrono::steady_clock::now() + _time_limit;
  std::string error_text;
  std::string kill_reason;
  int status = 0;
  bool open = true;
  // Reads what the child wrote to its standard error; false at end of file.
  auto read_some = [&](int timeout_ms) {
    pollfd p{read_end.fd, POLLIN, 0};
    if (::poll(&p, 1, timeout_ms) <= 0) return true;
    char buffer[1024];
    const ssize_t n = ::read(read_end.fd, buffer, sizeof buffer);
    if (n < 0) return errno == EINTR || errno == EAGAIN;
    if (n == 0) return false;
    const size_t room = MAX_ERROR_TEXT - std::min(MAX_ERROR_TEXT, error_text.size());
    error_text.append(buffer, std::min(room, static_cast<size_t>(n)));
    return true;
  };
  for (;;) {
    if (kill_reason.empty()) {
      if (_cancelled.load()) kill_reason = "killed: the daemon is stopping";
      if (std::chrono::steady_clock::now() > deadline) {
        kill_reason = "killed after " + std::to_string(_time_limit.count() / 1000) + " s";
      }
      if (!kill_reason.empty()) ::kill(-pid, SIGKILL);
    }
    if (open) {
      open = read_some(100);
    } else {
      ::usleep(10000);
    }
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) break;
    if (done < 0 && errno != EINTR) return {false, std::string("waitpid: ") + std::strerror(errno)};
  }
  // The command is gone; take what is already in the pipe, but do not wait
  // for a descendant that may still hold it open.
  for (int i = 0; open && i < 64; ++i) {
    pollfd p{read_end.fd, POLLIN, 0};
    if (::poll(&p, 1, 0) <= 0) break;
    open = read_some(0);
  }

  if (!kill_reason.empty()) return {false, kill_reason};
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return {true, ""};
  std::string message = trim(error_text);
  if (message.empty()) message = _argv[0] + " " + describe_status(status);
  return {false, message};
}

}  // namespace faitra_host
