// lock_probe: a thread that tries to take a lock and reports whether it got
// it only after the test let it go. Blocking is observed on the real OS: the
// probe counts as waiting once its thread sleeps in a futex system call
// after it has announced the attempt, so no test waits for a fixed time.
#pragma once

#include "support/wait.hpp"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

namespace faitra_test {

// Whether thread `tid` of this process currently sleeps in futex(2).
inline bool sleeping_on_futex(pid_t tid) {
  const std::string base = "/proc/self/task/" + std::to_string(tid);
  std::ifstream syscall_file(base + "/syscall");
  std::string number;
  if (syscall_file >> number) return number == std::to_string(SYS_futex);
  // Without the syscall file, fall back to the scheduler state.
  std::ifstream stat_file(base + "/stat");
  std::string line;
  std::getline(stat_file, line);
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] == 'S';
}

class lock_probe {
 public:
  // `acquire` takes the lock (blocking), `release` gives it back.
  lock_probe(std::function<void()> acquire, std::function<void()> release)
      : _thread([this, acquire = std::move(acquire), release = std::move(release)] {
          _tid = static_cast<pid_t>(::syscall(SYS_gettid));
          _attempting = true;
          acquire();
          _acquired_after_release = _released.load();
          _acquired = true;
          release();
        }) {}
  ~lock_probe() {
    if (_thread.joinable()) _thread.join();
  }
  lock_probe(const lock_probe&) = delete;
  lock_probe& operator=(const lock_probe&) = delete;

  // True once the probe sleeps waiting for the lock; false if it got the
  // lock instead (or neither happened before the deadline).
  bool blocked() {
    wait_until([this] { return _acquired || (_attempting && sleeping_on_futex(_tid)); });
    return !_acquired && _attempting;
  }
  // Call right before giving the lock up.
  void releasing() { _released = true; }
  // Waits for the probe to get the lock; true if it did, and only after
  // releasing() was called.
  bool acquired_after_release() {
    const bool acquired = wait_until([this] { return _acquired.load(); });
    _thread.join();
    return acquired && _acquired_after_release;
  }
  // Waits for the probe to get the lock, whatever the order.
  bool acquired() {
    const bool acquired = wait_until([this] { return _acquired.load(); });
    _thread.join();
    return acquired;
  }

 private:
  std::atomic<pid_t> _tid{0};
  std::atomic<bool> _attempting{false};
  std::atomic<bool> _released{false};
  std::atomic<bool> _acquired{false};
  bool _acquired_after_release = false;
  std::thread _thread;
};

}  // namespace faitra_test
