// A thread that runs one job at once and then every period, until stopped.
//
// A job that raises is logged and run again at the next period. stop()
// (also run by the destructor) wakes the thread, waits for a running job
// and joins; it is idempotent.
//
// Thread-safety: stop() from any thread but the job's own.
#pragma once

#include <cdl/log.hpp>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace faitra_host {

class periodic_thread {
 public:
  periodic_thread(std::string name, std::chrono::milliseconds period, std::function<void()> job, cdl::log* log);
  ~periodic_thread();
  periodic_thread(const periodic_thread&) = delete;
  periodic_thread& operator=(const periodic_thread&) = delete;

  void stop();

 private:
  void thread_body();

  const std::string _name;
  const std::chrono::milliseconds _period;
  std::function<void()> _job;
  cdl::log* _log;
  std::mutex _mutex;
  std::condition_variable _cv;
  bool _stopping = false;
  std::thread _thread;
};

}  // namespace faitra_host
