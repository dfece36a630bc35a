#include <faitra/host/periodic.hpp>

#include "thread_stop.hpp"

#include <exception>

namespace faitra_host {

periodic_thread::periodic_thread(std::string name, std::chrono::milliseconds period, std::function<void()> job,
                                 cdl::log* log)
    : _name(std::move(name)), _period(period), _job(std::move(job)), _log(log) {
  _thread = std::thread([this] { thread_body(); });
}

periodic_thread::~periodic_thread() { stop(); }

void periodic_thread::stop() {
  detail::stop_and_join(_mutex, _cv, _stopping, _thread);
}

void periodic_thread::thread_body() {
  for (;;) {
    try {
      _job();
    } catch (const std::exception& e) {
      if (_log != nullptr) _log->error("%s failed: %s", _name, e.what());
    }
    std::unique_lock<std::mutex> lock(_mutex);
    if (_cv.wait_for(lock, _period, [this] { return _stopping; })) return;
  }
}

}  // namespace faitra_host
