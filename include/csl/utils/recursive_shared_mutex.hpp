// csl::recursive_shared_mutex: a reader-writer lock that a thread may take
// again while it holds it.
//
// Contract (per thread, per mutex):
//  - n nested lock() calls need n unlock() calls; only the last releases.
//  - lock_shared() while holding the lock exclusively is counted into the
//    same recursion and never touches the underlying mutex.
//  - nested lock_shared() calls while holding only a shared lock are NOT
//    counted: each goes to the underlying mutex again, and each
//    unlock_shared() releases one hold and forgets the shared state.
//  - lock() while holding the lock shared (an upgrade) raises
//    cdl::assertion_failure "Upgrading a shared lock to exlusive lock is not
//    supported." and changes nothing.
// With a writer-preferring underlying lock, a second nested shared lock taken
// while another thread waits to write can deadlock; callers avoid nesting
// shared locks.
//
// Bookkeeping lives in two thread-local maps keyed by the mutex's address;
// entries are created on first use and die with the thread. Each thread also
// remembers where the entries of the mutex it used last are, so that a
// thread that keeps using one mutex looks nothing up.
//
// Thread-safety: the lock itself is the synchronisation primitive; `owner`
// is atomic because other threads read it while the holder writes it.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/synchronized.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <shared_mutex>
#include <thread>

namespace csl {

class recursive_shared_mutex {
 public:
  enum class lock_type : uint8_t { none = 0, shared = 1, exclusive = 2 };

  recursive_shared_mutex() : owner(std::thread::id()) {}
  recursive_shared_mutex(const recursive_shared_mutex&) = delete;
  recursive_shared_mutex& operator=(const recursive_shared_mutex&) = delete;

  void init() {
    lock_types.try_emplace(this, lock_type::none);
    recursion_count.try_emplace(this, 0);
  }

  void lock();
  void unlock();
  void lock_shared();
  void unlock_shared();

  // This thread's view of the mutex, for diagnostics and tests.
  lock_type held_by_this_thread() const {
    auto it = lock_types.find(this);
    return it == lock_types.end() ? lock_type::none : it->second;
  }
  uint64_t recursion_of_this_thread() const {
    auto it = recursion_count.find(this);
    return it == recursion_count.end() ? 0 : it->second;
  }

 private:
  std::shared_timed_mutex _mutex;
  std::atomic<std::thread::id> owner;

  // This thread's count and type of this mutex (created on first use).
  struct entries {
    uint64_t& count;
    lock_type& type;
  };
  entries this_thread_entries();

  static thread_local std::map<const recursive_shared_mutex*, uint64_t> recursion_count;
  static thread_local std::map<const recursive_shared_mutex*, lock_type> lock_types;
};

// A synchronized pointer whose guard takes the mutex shared.
template <typename M>
class synchronized_ptr_shared : public cdl::synchronized_ptr<M, std::condition_variable> {
 public:
  synchronized_ptr_shared(M* mutex, std::condition_variable* cv)
      : cdl::synchronized_ptr<M, std::condition_variable>(mutex, cv) {}

  class shared_guard {
   public:
    explicit shared_guard(const synchronized_ptr_shared& ptr) {
      if (ptr.mutex() != nullptr) {
        std::shared_lock<M> lock(*ptr.mutex());
        _lock = std::move(lock);
      }
    }
    shared_guard(const shared_guard&) = delete;
    shared_guard& operator=(const shared_guard&) = delete;

   private:
    std::shared_lock<M> _lock;
  };
};

}  // namespace csl
