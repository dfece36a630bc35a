// Owning handles of task objects, their disposal policy, and per-class pools.
//
// cdl::task_ptr<T> is the single, move-only owner of one task object and of
// the deleter that disposes of it. It is either fully set or empty; a moved
// from handle is empty. Handles convert by move between base and derived task
// classes. clear() empties the handle before disposing, so a handle is
// already empty while its object is being destroyed.
//
// cdl::memory_pool<T>::make is the only way task objects are created. Each
// class has one pool (capacity 200), but the capacity is recorded only: every
// make allocates a new object and every disposal frees it, so a burst of
// events costs one allocation per event.
//
// Thread-safety: a handle is owned by one thread at a time; moving it hands
// the object over. Pool creation and identify<T>() are safe under concurrent
// first calls; make and disposal touch no shared container and take no lock.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/synchronized.hpp>
#include <cdl/task.hpp>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace cdl {

template <typename T>
const task_type& task_type::identify() {
  static const std::string name = T::name_static();
  static const task_type type = identify_from_name(name);
  return type;
}

// How to dispose of a task object.
class deleter_base {
 public:
  virtual ~deleter_base() = default;
  virtual void dispose(task* object) = 0;
  virtual deleter_base* copy() const = 0;
};

template <typename T>
class deleter : public deleter_base {
 public:
  using function_type = std::function<void(T*, deleter_base*)>;
  explicit deleter(function_type fn) : _fn(std::move(fn)) {}

  // The function usually frees this deleter too, so it is moved out first.
  void dispose(task* object) override {
    function_type fn = std::move(_fn);
    fn(static_cast<T*>(object), this);
  }
  deleter_base* copy() const override { return new deleter<T>(_fn); }

 private:
  function_type _fn;
};

template <typename T>
class task_ptr {
 public:
  task_ptr() = default;
  task_ptr(T* object, std::function<void(T*, deleter_base*)> dispose) {
    if (object != nullptr) _deleter = new deleter<T>(std::move(dispose));
    _object = object;
    if (object == nullptr) throw exception(CDL_FILE_NAME, 22, "Both ptr and deleter_ptr must be set.");
  }
  task_ptr(const task_ptr&) = delete;
  task_ptr& operator=(const task_ptr&) = delete;

  task_ptr(task_ptr&& other) noexcept { take(other); }
  template <typename U, typename = std::enable_if_t<std::is_base_of_v<T, U> || std::is_base_of_v<U, T>>>
  task_ptr(task_ptr<U>&& other) noexcept {  // NOLINT: converting move
    take(other);
  }
  task_ptr& operator=(task_ptr&& other) noexcept {
    if (this != &other) reset(std::move(other));
    return *this;
  }
  virtual ~task_ptr() { clear(); }

  T* operator->() const {
    if (_object == nullptr) throw exception(CDL_FILE_NAME, 96, "Trying to access an empty task_ptr");
    return _object;
  }
  T& operator*() const { return *operator->(); }
  T* get() const { return _object; }
  explicit operator bool() const { return _object != nullptr; }

  void clear() {
    if (_object == nullptr) return;
    deleter_base* d = _deleter;
    T* object = _object;
    _deleter = nullptr;
    _object = nullptr;
    d->dispose(object);
  }

  template <typename U>
  void reset(task_ptr<U>&& other) {
    if (static_cast<void*>(&other) == static_cast<void*>(this)) return;
    clear();
    take(other);
  }

 private:
  template <typename U>
  friend class task_ptr;

  template <typename U>
  void take(task_ptr<U>& other) {
    _deleter = other._deleter;
    _object = static_cast<T*>(other._object);
    other._deleter = nullptr;
    other._object = nullptr;
  }

  deleter_base* _deleter = nullptr;
  T* _object = nullptr;
};

// A vector guarded by a mutex with a condition variable.
template <typename T>
class queue : public synchronized<std::mutex, std::condition_variable> {
 public:
  ~queue() override = default;
  std::vector<T>& items() { return _items; }

 private:
  std::vector<T> _items;
};

template <typename T>
class memory_pool {
 public:
  explicit memory_pool(unsigned long capacity) : _unbounded(capacity == 0), _capacity(capacity) {}

  template <typename... Args>
  static task_ptr<T> make(Args&&... args) {
    memory_pool& pool = instance();
    std::unique_ptr<T> object(new T(std::forward<Args>(args)...));
    task_ptr<T> handle(object.get(), [&pool](T* o, deleter_base* d) { pool.deleter(o, d); });
    object.release();
    return handle;
  }

  // Frees the object and its deleter; the pool's containers stay untouched.
  void deleter(T* object, deleter_base* d) {
    delete object;
    delete d;
  }

  unsigned long capacity() const { return _capacity; }
  bool unbounded() const { return _unbounded; }

 private:
  // The one pool of class T, built on first use and destroyed at exit.
  static memory_pool& instance() {
    static memory_pool pool(200);
    return pool;
  }

  queue<task_ptr<T>> _free_objects;
  std::vector<task_ptr<T>> _objects;
  bool _unbounded;
  unsigned long _capacity;
  std::mutex _lock;
};

}  // namespace cdl
