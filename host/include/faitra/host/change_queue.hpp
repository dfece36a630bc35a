// The export's bounded queue of catalogue changes: the paths whose rows in
// the central table must be brought in line with the catalogue.
//
// A change is a path, not an event: whoever takes it looks the path up in
// the catalogue and writes the row (present) or deletes it (absent), so a
// path noted twice is queued once and a delete can never be lost behind a
// later insert. Each path keeps the time it was first noted (the export's
// lag is measured from there).
//
// Bounded: when a path would exceed `capacity`, the queue empties itself and
// asks for a resync instead, which rewrites every row (and deletes the rows
// of captures that are gone). Memory therefore stays bounded however long
// the database is away, and nothing is lost. While a resync is asked for,
// notes are dropped: the resync covers them.
//
// Thread-safety: every member may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace faitra_host {

class change_queue {
 public:
  using clock = std::chrono::steady_clock;

  struct batch {
    std::vector<std::string> paths;  // in the order first noted
    clock::time_point oldest{};       // when the oldest of them was noted
  };

  explicit change_queue(size_t capacity);

  void note(const std::string& path);

  // Asks for a resync and empties the queue; `since` is when the oldest
  // change it stands for happened (kept when an earlier one is pending).
  void need_resync(clock::time_point since = clock::now());
  // When a resync is asked for: clears the request and the queue and
  // returns the time it has been pending since. Changes noted from now on
  // queue again, for after the resync.
  std::optional<clock::time_point> take_resync();

  // Waits until a batch is due (at least `max` paths, or the oldest is
  // `interval` old), a resync is asked for, wake() is called or `until`
  // passes; then takes up to `max` paths (none when no batch was due).
  batch wait_for_batch(size_t max, clock::duration interval, clock::time_point until);
  // Ends a current and the next wait_for_batch() at once.
  void wake();

  size_t depth() const;
  bool resync_needed() const;
  size_t capacity() const { return _capacity; }
  unsigned long overflows() const;
  // When the oldest change still waiting (queued or standing behind a
  // resync request) was noted; nothing when none waits.
  std::optional<clock::time_point> oldest() const;

 private:
  const size_t _capacity;
  mutable std::mutex _mutex;
  std::condition_variable _cv;
  std::unordered_map<std::string, clock::time_point> _pending;
  std::deque<const std::string*> _order;  // keys of _pending, oldest first
  std::optional<clock::time_point> _resync_since;
  unsigned long _overflows = 0;
  size_t _batch_max = 0;  // of the last wait_for_batch(), for waking it when its batch is full
  bool _woken = false;
};

}  // namespace faitra_host
