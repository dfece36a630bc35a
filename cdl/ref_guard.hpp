// cdl::ref_guard: sets a shared flag for the lifetime of a scope and writes
// a chosen value back when the scope ends, however it ends.
//
// Optionally every value the guard writes is first recorded on a bounded
// queue (dropped silently once the queue holds `capacity` entries), so an
// observer that sees the flag change finds the matching entry already queued.
// override_final_value() replaces the exit value; set_value() writes at once.
//
// Thread-safety: the flag is written with atomic stores; the queue is
// protected only by the mutex the caller supplies (none: the caller ensures
// exclusive access). The guard itself belongs to one thread.
#pragma once

#include <cdl/nullable.hpp>

#include <atomic>
#include <deque>
#include <mutex>
#include <queue>

namespace cdl {

template <typename Ref, typename V>
class ref_guard;

template <>
class ref_guard<std::atomic<bool>, bool> {
 public:
  ref_guard(std::atomic<bool>& ref, nullable<bool> entry_value, nullable<bool> exit_value,
            std::queue<bool>* queue, std::mutex* mutex, unsigned long capacity)
      : _ref(&ref),
        _entry_value(entry_value),
        _exit_value(exit_value),
        _queue(queue),
        _mutex(mutex),
        _capacity(capacity) {
    if (!_entry_value.is_null()) {
      push_on_queue(*_entry_value);
      _ref->store(*_entry_value);
    }
  }
  ref_guard(const ref_guard&) = delete;
  ref_guard& operator=(const ref_guard&) = delete;

  virtual ~ref_guard() {
    if (_released) return;
    if (!_final_override.is_null()) {
      push_on_queue(*_final_override);
      _ref->store(*_final_override);
    } else if (!_exit_value.is_null()) {
      push_on_queue(*_exit_value);
      _ref->store(*_exit_value);
    }
  }

  virtual void set_value(const bool& value) {
    push_on_queue(value);
    _ref->store(value);
  }
  virtual void override_final_value(const bool& value) { _final_override = value; }

  void push_on_queue(const bool& value) {
    if (_queue == nullptr) return;
    std::unique_lock<std::mutex> lock;
    if (_mutex != nullptr) lock = std::unique_lock<std::mutex>(*_mutex);
    if (_queue->size() < _capacity) _queue->push(value);
  }

 private:
  std::atomic<bool>* _ref;
  nullable<bool> _final_override;
  nullable<bool> _entry_value;
  nullable<bool> _exit_value;
  bool _released = false;
  std::queue<bool>* _queue;
  std::mutex* _mutex;
  unsigned long _capacity;
};

}  // namespace cdl
