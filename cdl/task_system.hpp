// The host runtime's task system: worker groups, task listener groups,
// channels, dispatchers and the runtime's start and stop callbacks.
//
// How a host wires it:
//
//   cdl::core core(&log);                               // reports failures
//   cdl::worker_group workers(core, {1, "Tracker"});    // starts 1 thread
//   cdl::task_listener_group listeners(workers);        // 1 channel/worker
//   listeners.task_channel(0).register_task_handler(&C::handle, &obj,
//       cdl::task_handler_order::normal, ~0UL);
//   listeners.task_channel(0).push(std::move(task), ~0UL, false);
//   cdl::runtime runtime;                                // start/stop hooks
//   runtime.start(); ... runtime.stop();
//
// Delivery: push() queues the task on the channel's worker; the worker hands
// tasks over in FIFO order per channel, each to every handler registered for
// the task's (type, version) on that channel, and to handlers registered for
// a base class of the task, in order value first and registration sequence
// second. A handler may take the task (move it elsewhere); later handlers of
// that task are then skipped. An exception that escapes a handler is reported
// through the core (logged, counted) and the worker goes on.
//
// Lifetimes: destroy listener groups before their worker group (a listener
// group's destructor drops its queued tasks and waits for the one running).
// Destroying a worker group lets each running task finish, drops queued
// tasks and joins the threads.
//
// Thread-safety: push() is safe from any thread. Registration is safe while
// tasks flow, but registrations on different channels must not run
// concurrently (they share one sequence counter).
#pragma once

#include <cdl/log.hpp>
#include <cdl/task.hpp>
#include <cdl/task_ptr.hpp>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace cdl {

// Running order of handlers of one task: smaller values run first.
enum class task_handler_order : int32_t {
  first = 0,
  normal = 1,
  last = 2,  // sorted after all others; among these, the later registration runs first
};

// The process's task-system root: reports what escapes handlers.
class core {
 public:
  explicit core(const log* log = nullptr) : _log(log) {}
  core(const core&) = delete;
  core& operator=(const core&) = delete;

  // Reports a handler failure: logged at error priority when a log is set,
  // else written to standard error.
  void report_failure(const std::string& group, const std::string& task_name, const std::string& what);
  unsigned long failures() const { return _failures.load(); }

 private:
  const log* _log;
  std::atomic<unsigned long> _failures{0};
};

struct worker_group_config {
  unsigned long workers = 1;
  std::string name;
};

class task_mapping_base {
 public:
  virtual ~task_mapping_base();
  // Hands the task to the handler; the handle comes back set unless the
  // handler kept the task. Exceptions propagate after the hand-back.
  virtual void dispatch(task_ptr<task>& task) = 0;
  virtual task_handler_order order() const = 0;
  virtual unsigned long sequence() const = 0;
  virtual const std::string& task_type_name() const = 0;
};

class task_type_comparator_base {
 public:
  virtual ~task_type_comparator_base();
  // Whether `t` belongs to a class strictly derived from the compared class.
  virtual bool is_base_of(task* t) const = 0;
};

// Per-worker table of handlers, keyed by (task type, version).
class task_dispatcher {
 public:
  struct task_entry {
    std::unique_ptr<task_type_comparator_base> comparator;
    std::vector<std::shared_ptr<task_mapping_base>> handlers;
  };
  using key_type = std::pair<task_type, unsigned long>;

  template <typename T, typename C>
  void register_task_handler(void (C::*method)(task_ptr<T>&), C* object, task_handler_order order,
                             unsigned long version);
  template <typename T>
  void register_task_handler(std::function<void(task_ptr<T>&)> handler, task_handler_order order,
                             unsigned long version);
  // The same under an identity given by the caller (see task_channel).
  template <typename T>
  void register_task_handler_as(const task_type& type, std::function<void(task_ptr<T>&)> handler,
                                task_handler_order order, unsigned long version);

  // Puts an entry's handlers into running order: order value, then sequence.
  static void sort(task_entry& entry);

  // Runs every matching handler on the calling thread (the worker's).
  void dispatch(task_ptr<task>& task, core& core, const std::string& group_name);
  // Number of handlers registered for exactly this type and version.
  size_t handler_count(const task_type& type, unsigned long version) const;
  // A snapshot of the handlers registered for exactly this type and version,
  // in running order (empty when none is registered).
  std::vector<std::shared_ptr<task_mapping_base>> handlers(const task_type& type, unsigned long version) const;

  // Process-wide registration sequence; incremented without synchronisation.
  static unsigned long counter;

 private:
  mutable std::mutex _mutex;  // guards _entries against dispatch while registering
  std::map<key_type, task_entry> _entries;
};

class worker_group;

class task_channel {
 public:
  task_channel(worker_group& group, std::shared_ptr<std::vector<task_dispatcher>> dispatchers, unsigned long worker,
               const void* owner);

  template <typename T, typename C>
  void register_task_handler(void (C::*method)(task_ptr<T>&), C* object, task_handler_order order,
                             unsigned long version);
  // For task classes that have no name_static() to identify them by: files
  // the handler under `type`, the identity the class's objects report (ask
  // one object for its type()). Delivery is as for any other handler.
  template <typename T, typename C>
  void register_task_handler_as(const task_type& type, void (C::*method)(task_ptr<T>&), C* object,
                                task_handler_order order, unsigned long version);

  // Queues `task` for this channel's worker. `limit` is the most tasks the
  // worker's queue may hold; when it is full, `wait_when_full` blocks until
  // there is room, otherwise the task is dropped and false returned.
  bool push(task_ptr<task>&& task, unsigned long limit, bool wait_when_full);

  void register_task_type_and_version(const task_type& type, const unsigned long& version);
  std::set<std::pair<task_type, unsigned long>> registered_types() const;

  unsigned long worker_id() const { return _worker; }
  const std::shared_ptr<std::vector<task_dispatcher>>& dispatchers() const { return _dispatchers; }

 private:
  worker_group* _group;
  std::shared_ptr<std::vector<task_dispatcher>> _dispatchers;
  unsigned long _worker;
  const void* _owner;
  mutable std::mutex _types_mutex;
  std::set<std::pair<task_type, unsigned long>> _types;
};

class worker_group {
 public:
  worker_group(core& core, const worker_group_config& config);
  ~worker_group();
  worker_group(const worker_group&) = delete;
  worker_group& operator=(const worker_group&) = delete;

  unsigned long size() const { return _workers.size(); }
  const std::string& name() const { return _name; }

  // Runtime internals used by channels and listener groups.
  bool enqueue(unsigned long worker, task_ptr<task>&& task, task_dispatcher* dispatcher, const void* owner,
               unsigned long limit, bool wait_when_full);
  // Drops the queued tasks of `owner` and waits until none of its tasks runs
  // (unless called from the running task itself).
  void detach(const void* owner);

 private:
  struct item {
    task_ptr<cdl::task> queued;
    task_dispatcher* dispatcher;
    const void* owner;
  };
  struct worker {
    std::mutex mutex;
    std::condition_variable cv;  // work queued, room freed, task finished, stop
    std::deque<item> queue;
    const void* running_owner = nullptr;
    std::thread::id thread_id;
    std::thread thread;
  };
  void run(worker& w);

  core& _core;
  std::string _name;
  std::atomic<bool> _stopping{false};
  std::vector<std::unique_ptr<worker>> _workers;
};

class task_listener_group {
 public:
  explicit task_listener_group(worker_group& group);
  ~task_listener_group();
  task_listener_group(const task_listener_group&) = delete;
  task_listener_group& operator=(const task_listener_group&) = delete;

  std::vector<std::unique_ptr<cdl::task_channel>>& task_channels() { return _channels; }
  cdl::task_channel& task_channel(unsigned long index) { return *_channels.at(index); }
  worker_group& group() { return _group; }

 private:
  worker_group& _group;
  std::shared_ptr<std::vector<task_dispatcher>> _dispatchers;
  std::vector<std::unique_ptr<cdl::task_channel>> _channels;
};

// Start and stop hooks of the host process. start() runs the start callbacks
// in registration order, stop() the stop callbacks in reverse registration
// order; each runs its callbacks at most once.
class runtime {
 public:
  runtime() = default;
  runtime(const runtime&) = delete;
  runtime& operator=(const runtime&) = delete;

  template <typename C>
  void register_start_callback(void (C::*method)(), C* object);
  template <typename C>
  void register_stop_callback(void (C::*method)(), C* object);

  void start();
  void stop();
  bool started() const { return _started.load(); }
  bool stopped() const { return _stopped.load(); }

  std::vector<std::function<void()>>& start_callbacks() { return _start_callbacks; }
  std::vector<std::function<void()>>& stop_callbacks() { return _stop_callbacks; }

 private:
  std::mutex _mutex;
  std::atomic<bool> _started{false};
  std::atomic<bool> _stopped{false};
  std::vector<std::function<void()>> _start_callbacks;
  std::vector<std::function<void()>> _stop_callbacks;
};

}  // namespace cdl

#include <cdl/impl/task_mapping.hpp>
