#include <faitra/host/change_queue.hpp>

#include <algorithm>

namespace faitra_host {

change_queue::change_queue(size_t capacity) : _capacity(std::max<size_t>(capacity, 1)) {}

void change_queue::note(const std::string& path) {
  const clock::time_point now = clock::now();
  bool due = false;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_resync_since) return;
    if (_pending.count(path) != 0) return;
    if (_pending.size() >= _capacity) {
      ++_overflows;
      _resync_since = _order.empty() ? now : _pending.at(*_order.front());
      _pending.clear();
      _order.clear();
      due = true;
    } else {
      const auto inserted = _pending.emplace(path, now).first;
      _order.push_back(&inserted->first);
      // A waiter may now have a nearer deadline, or a full batch.
      due = _pending.size() == 1 || _pending.size() == _batch_max;
    }
  }
  if (due) _cv.notify_all();
}

void change_queue::need_resync(clock::time_point since) {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_order.empty()) since = std::min(since, _pending.at(*_order.front()));
    if (_resync_since) since = std::min(since, *_resync_since);
    _resync_since = since;
    _pending.clear();
    _order.clear();
  }
  _cv.notify_all();
}

std::optional<change_queue::clock::time_point> change_queue::take_resync() {
  std::lock_guard<std::mutex> lock(_mutex);
  std::optional<clock::time_point> since = _resync_since;
  if (!since) return std::nullopt;
  _resync_since.reset();
  _pending.clear();
  _order.clear();
  return since;
}

change_queue::batch change_queue::wait_for_batch(size_t max, clock::duration interval, clock::time_point until) {
  batch out;
  std::unique_lock<std::mutex> lock(_mutex);
  _batch_max = max;
  for (;;) {
    if (_woken || _resync_since) break;
    clock::time_point deadline = until;
    if (!_order.empty()) {
      const clock::time_point due = _pending.at(*_order.front()) + interval;
      if (_order.size() >= max || due <= clock::now()) {
        out.oldest = _pending.at(*_order.front());
        while (!_order.empty() && out.paths.size() < max) {
          const std::string* path = _order.front();
          _order.pop_front();
          out.paths.push_back(*path);
          _pending.erase(*path);
        }
        break;
      }
      deadline = std::min(deadline, due);
    }
    if (clock::now() >= until) break;
    // Woken early by the first note into an empty queue (its age sets a
    // nearer deadline), a note that makes the batch full or a resync
    // request; a batch that is merely growing is left to its deadline.
    const bool was_empty = _order.empty();
    _cv.wait_until(lock, deadline, [&] {
      return _woken || _resync_since || _order.size() >= max || (was_empty && !_order.empty()) ||
             clock::now() >= deadline;
    });
  }
  _woken = false;
  return out;
}

void change_queue::wake() {
  {
    std::lock_guard<std::mutex> lock(_mutex);
    _woken = true;
  }
  _cv.notify_all();
}

size_t change_queue::depth() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _pending.size();
}

bool change_queue::resync_needed() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _resync_since.has_value();
}

unsigned long change_queue::overflows() const {
  std::lock_guard<std::mutex> lock(_mutex);
  return _overflows;
}

std::optional<change_queue::clock::time_point> change_queue::oldest() const {
  std::lock_guard<std::mutex> lock(_mutex);
  std::optional<clock::time_point> out = _resync_since;
  if (!_order.empty()) {
    const clock::time_point first = _pending.at(*_order.front());
    out = out ? std::min(*out, first) : first;
  }
  return out;
}

}  // namespace faitra_host
