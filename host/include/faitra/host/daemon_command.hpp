// Running an operator's command from the daemon (metadata cleanup, disk
// cache refresh) without a shell.
//
// The command line is split on spaces and tabs into a program and its
// arguments; no quoting, no expansion, no shell. The program is looked up in
// PATH when it has no slash. Extra arguments (the two timestamps of a
// metadata cleanup) are appended as separate arguments, so nothing a request
// carries is ever interpreted by a shell.
//
// The child gets /dev/null as standard input and output, a pipe as standard
// error (its text is the error message), default signal dispositions, an
// empty signal mask and its own process group, and no other inherited
// descriptors. Exit status 0 is success. A command that runs longer than its
// time limit, or is still running when cancel_all() is called, is killed
// together with its process group.
//
// Thread-safety: run() may be called from several threads at once.
#pragma once

#include <atomic>
#include <chrono>
#include <string>
#include <vector>

namespace faitra_host {

struct command_result {
  bool ok = false;
  std::string error;  // set when !ok: the command's standard error, or why it failed
};

class command_runner {
 public:
  static constexpr std::chrono::seconds DEFAULT_TIME_LIMIT{300};
  // At most this many bytes of the child's standard error are kept.
  static constexpr size_t MAX_ERROR_TEXT = 4096;

  explicit command_runner(const std::string& command_line,
                          std::chrono::milliseconds time_limit = DEFAULT_TIME_LIMIT);

  // The program and its fixed arguments.
  const std::vector<std::string>& argv() const { return _argv; }

  // Runs the command with `extra` appended and waits for it.
  command_result run(const std::vector<std::string>& extra) const;

  // Kills every running child and makes later runs fail at once.
  void cancel_all() { _cancelled.store(true); }

 private:
  std::vector<std::string> _argv;
  std::chrono::milliseconds _time_limit;
  std::atomic<bool> _cancelled{false};
};

// Splits a command line on spaces and tabs; empty pieces are dropped.
std::vector<std::string> split_command_line(const std::string& command_line);

}  // namespace faitra_host
