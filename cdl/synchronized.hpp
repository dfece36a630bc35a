// cdl::synchronized and cdl::synchronized_ptr: a mutex paired with a
// condition variable, owned or referenced.
//
// synchronized_ptr holds two non-owning pointers (mutex, condition variable)
// and offers `guard`, which takes the mutex exclusively for a scope. A guard
// over a null mutex holds and protects nothing. The guard never waits on or
// notifies the condition variable.
//
// Thread-safety: the pointers are fixed at construction; the guard is used by
// the one thread that built it.
#pragma once

#include <mutex>

namespace cdl {

template <typename M, typename CV>
class synchronized {
 public:
  virtual ~synchronized() = default;
  M& mutex() const { return _mutex; }
  CV& condition_variable() const { return _cv; }

 private:
  mutable M _mutex;
  mutable CV _cv;
};

template <typename M, typename CV>
class synchronized_ptr {
 public:
  synchronized_ptr(M* mutex, CV* cv) : _mutex(mutex), _cv(cv) {}

  M* mutex() const { return _mutex; }
  CV* condition_variable() const { return _cv; }

  // Exclusive lock on the pointed mutex for the guard's lifetime.
  class guard {
   public:
    explicit guard(const synchronized_ptr& ptr) {
      if (ptr.mutex() != nullptr) {
        std::unique_lock<M> lock(*ptr.mutex());
        _lock = std::move(lock);
      }
    }
    guard(const guard&) = delete;
    guard& operator=(const guard&) = delete;

   private:
    std::unique_lock<M> _lock;
  };

 private:
  M* _mutex;
  CV* _cv;
};

}  // namespace cdl
