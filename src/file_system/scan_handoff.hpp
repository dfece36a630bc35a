// csl::scan_handoff: passes scanned records, in order, from the thread that
// makes them (stat and getxattr) to the thread that catalogues them.
//
// The maker publishes records in chunks, so the cataloguing thread wakes once
// per chunk rather than once per record. The maker ends with finish(), after
// handing over the exception that stopped it, if any: the taker rethrows it
// in sequence, after every record made before it. The taker stops the maker
// early with stop() (for instance when a callback raised).
//
// Thread-safety: one maker thread and one taker thread.
#pragma once

#include <csl/fs_entry.hpp>

#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <vector>

namespace csl {

class scan_handoff {
 public:
  using chunk = std::vector<std::shared_ptr<fs_entry>>;
  // Records per chunk: large enough that the hand-off costs little per record,
  // small enough that the taker starts soon after the maker.
  static constexpr size_t CHUNK = 256;

  // Maker: adds a record; publishes the chunk when it is full.
  void add(std::shared_ptr<fs_entry>&& record) {
    _filling.push_back(std::move(record));
    if (_filling.size() >= CHUNK) publish(false, nullptr);
  }
  // Maker: publishes what is left, with the exception that ended the scan.
  void finish(std::exception_ptr error) { publish(true, std::move(error)); }
  // Maker: whether the taker asked it to stop.
  bool stopped() const { return _stopped.load(std::memory_order_relaxed); }

  // Taker: waits for records; false once every record has been taken.
  // Rethrows the maker's exception after the last record made before it.
  bool take(chunk& out) {
    out.clear();
    std::unique_lock<std::mutex> lock(_mutex);
    _ready_cv.wait(lock, [&] { return !_ready.empty() || _finished; });
    if (!_ready.empty()) {
      out.swap(_ready);
      return true;
    }
    if (_error) std::rethrow_exception(_error);
    return false;
  }
  void stop() { _stopped.store(true, std::memory_order_relaxed); }

 private:
  void publish(bool finished, std::exception_ptr error) {
    std::lock_guard<std::mutex> lock(_mutex);
    const bool was_idle = _ready.empty() && !_finished;
    if (_ready.empty()) {
      _ready.swap(_filling);
    } else {
      for (auto& record : _filling) _ready.push_back(std::move(record));
      _filling.clear();
    }
    _finished = finished;
    _error = std::move(error);
    if (was_idle) _ready_cv.notify_one();
  }

  mutable std::mutex _mutex;
  std::condition_variable _ready_cv;
  chunk _filling;  // the maker's alone
  chunk _ready;
  bool _finished = false;
  std::atomic<bool> _stopped{false};
  std::exception_ptr _error;
};

}  // namespace csl
