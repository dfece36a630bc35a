// lock_probe: a thread that tries to take a lock, for telling whether it had
// to wait. Blocking is observed on the real OS (the probe's thread sleeps in
// futex(2) after announcing its attempt), so no test waits a fixed time.
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

class lock_probe {
 public:
  // `acquire` takes the lock (blocking), `release` gives it back.
  lock_probe(std::function<void()> acquire, std::function<void()> release)
      : _thread([this, acquire = std::move(acquire), release = std::move(release)] {
          _tid = static_cast<pid_t>(::syscall(SYS_gettid));
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

  // True once the probe sleeps waiting for the lock; false if it got it.
  bool blocked() {
    wait_until([this] { return _acquired || (_tid != 0 && sleeping_on_futex()); });
    return !_acquired;
  }
  // Call right before giving the lock up.
  void releasing() { _released = true; }
  // Waits for the probe to get the lock: true if it did, after releasing().
  bool acquired_after_release() { return acquired() && _acquired_after_release; }
  // Waits for the probe to get the lock, whatever the order.
  bool acquired() {
    const bool acquired = wait_until([this] { return _acquired.load(); });
    if (acquired) _thread.join();
    return acquired;
  }

 private:
  bool sleeping_on_futex() const {
    std::ifstream syscall_file("/proc/self/task/" + std::to_string(_tid) + "/syscall");
    std::string number;
    return syscall_file >> number && number == std::to_string(SYS_futex);
  }

  std::atomic<pid_t> _tid{0};
  std::atomic<bool> _released{false};
  std::atomic<bool> _acquired{false};
  bool _acquired_after_release = false;
  std::thread _thread;
};

}  // namespace faitra_test
