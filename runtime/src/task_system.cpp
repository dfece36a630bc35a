// Worker groups, channels, dispatchers and the runtime's callbacks.
#include <cdl/task_system.hpp>

#include <pthread.h>

#include <algorithm>
#include <cstdio>
#include <exception>

namespace cdl {

unsigned long task_dispatcher::counter = 0;

task_mapping_base::~task_mapping_base() = default;
task_type_comparator_base::~task_type_comparator_base() = default;

void core::report_failure(const std::string& group, const std::string& task_name, const std::string& what) {
  _failures.fetch_add(1);
  if (_log != nullptr) {
    _log->error("Task %s failed on worker group %s: %s", task_name, group, what);
  } else {
    std::fprintf(stderr, "Task %s failed on worker group %s: %s\n", task_name.c_str(), group.c_str(), what.c_str());
  }
}

// ---------------------------------------------------------------------------
// task_dispatcher

void task_dispatcher::sort(task_entry& entry) {
  std::stable_sort(entry.handlers.begin(), entry.handlers.end(),
                   [](const std::shared_ptr<task_mapping_base>& a, const std::shared_ptr<task_mapping_base>& b) {
                     if (a->order() != b->order()) return a->order() < b->order();
                     return a->sequence() < b->sequence();
                   });
}

void task_dispatcher::dispatch(task_ptr<task>& t, core& core, const std::string& group_name) {
  std::vector<std::shared_ptr<task_mapping_base>> handlers;
  {
    std::lock_guard<std::mutex> lock(_mutex);
    for (const auto& [key, entry] : _entries) {
      if (key.second != t->version()) continue;
      if (key.first == t->type() || (entry.comparator && entry.comparator->is_base_of(t.get()))) {
        handlers.insert(handlers.end(), entry.handlers.begin(), entry.handlers.end());
      }
    }
  }
  task_entry merged{nullptr, std::move(handlers)};
  sort(merged);
  const std::string task_name = t->name();
  for (const auto& handler : merged.handlers) {
    if (!t) break;  // a handler kept the task
    try {
      handler->dispatch(t);
    } catch (const std::exception& e) {
      core.report_failure(group_name, task_name, e.what());
    } catch (...) {
      core.report_failure(group_name, task_name, "unknown exception");
    }
  }
}

size_t task_dispatcher::handler_count(const task_type& type, unsigned long version) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _entries.find(key_type(type, version));
  return it == _entries.end() ? 0 : it->second.handlers.size();
}

std::vector<std::shared_ptr<task_mapping_base>> task_dispatcher::handlers(const task_type& type,
                                                                          unsigned long version) const {
  std::lock_guard<std::mutex> lock(_mutex);
  const auto it = _entries.find(key_type(type, version));
  return it == _entries.end() ? std::vector<std::shared_ptr<task_mapping_base>>() : it->second.handlers;
}

// ---------------------------------------------------------------------------
// task_channel

task_channel::task_channel(worker_group& group, std::shared_ptr<std::vector<task_dispatcher>> dispatchers,
                           unsigned long worker, const void* owner)
    : _group(&group), _dispatchers(std::move(dispatchers)), _worker(worker), _owner(owner) {}

bool task_channel::push(task_ptr<task>&& t, unsigned long limit, bool wait_when_full) {
  return _group->enqueue(_worker, std::move(t), &(*_dispatchers)[_worker], _owner, limit, wait_when_full);
}

void task_channel::register_task_type_and_version(const task_type& type, const unsigned long& version) {
  std::lock_guard<std::mutex> lock(_types_mutex);
  _types.emplace(type, version);
}

std::set<std::pair<task_type, unsigned long>> task_channel::registered_types() const {
  std::lock_guard<std::mutex> lock(_types_mutex);
  return _types;
}

// ---------------------------------------------------------------------------
// worker_group

worker_group::worker_group(core& core, const worker_group_config& config) : _core(core), _name(config.name) {
  const unsigned long count = config.workers == 0 ? 1 : config.workers;
  for (unsigned long i = 0; i < count; ++i) _workers.push_back(std::make_unique<worker>());
  for (unsigned long i = 0; i < count; ++i) {
    worker& w = *_workers[i];
    w.thread = std::thread([this, &w] { run(w); });
    // Thread names are limited to 15 characters.
    pthread_setname_np(w.thread.native_handle(), _name.substr(0, 15).c_str());
  }
}

worker_group::~worker_group() {
  _stopping.store(true);
  for (auto& w : _workers) {
    std::lock_guard<std::mutex> lock(w->mutex);
    w->cv.notify_all();
  }
  for (auto& w : _workers) {
    if (w->thread.joinable()) w->thread.join();
    w->queue.clear();  // queued tasks are dropped (and disposed of)
  }
}

bool worker_group::enqueue(unsigned long index, task_ptr<task>&& t, task_dispatcher* dispatcher, const void* owner,
                           unsigned long limit, bool wait_when_full) {
  if (!t) return false;
  worker& w = *_workers.at(index);
  std::unique_lock<std::mutex> lock(w.mutex);
  if (w.queue.size() >= limit) {
    if (!wait_when_full) return false;
    w.cv.wait(lock, [&] { return _stopping.load() || w.queue.size() < limit; });
  }
  if (_stopping.load()) return false;
  w.queue.push_back(item{std::move(t), dispatcher, owner});
  w.cv.notify_all();
  return true;
}

void worker_group::detach(const void* owner) {
  for (auto& w : _workers) {
    std::deque<item> dropped;
    std::unique_lock<std::mutex> lock(w->mutex);
    for (auto it = w->queue.begin(); it != w->queue.end();) {
      if (it->owner == owner) {
        dropped.push_back(std::move(*it));
        it = w->queue.erase(it);
      } else {
        ++it;
      }
    }
    if (w->thread_id != std::this_thread::get_id()) {
      w->cv.wait(lock, [&] { return w->running_owner != owner; });
    }
    w->cv.notify_all();
    lock.unlock();
    // `dropped` disposes of the tasks here, outside the lock.
  }
}

void worker_group::run(worker& w) {
  {
    std::lock_guard<std::mutex> lock(w.mutex);
    w.thread_id = std::this_thread::get_id();
  }
  for (;;) {
    item next;
    {
      std::unique_lock<std::mutex> lock(w.mutex);
      w.cv.wait(lock, [&] { return _stopping.load() || !w.queue.empty(); });
      if (_stopping.load()) return;
      next = std::move(w.queue.front());
      w.queue.pop_front();
      w.running_owner = next.owner;
      w.cv.notify_all();  // room freed for blocked producers
    }
    try {
      next.dispatcher->dispatch(next.queued, _core, _name);
      next.queued.clear();
    } catch (const std::exception& e) {
      _core.report_failure(_name, "(disposal)", e.what());
    } catch (...) {
      _core.report_failure(_name, "(disposal)", "unknown exception");
    }
    {
      std::lock_guard<std::mutex> lock(w.mutex);
      w.running_owner = nullptr;
      w.cv.notify_all();
    }
  }
}

// ---------------------------------------------------------------------------
// task_listener_group

task_listener_group::task_listener_group(worker_group& group)
    : _group(group), _dispatchers(std::make_shared<std::vector<task_dispatcher>>(group.size())) {
  for (unsigned long i = 0; i < group.size(); ++i) {
    _channels.push_back(std::make_unique<cdl::task_channel>(group, _dispatchers, i, this));
  }
}

task_listener_group::~task_listener_group() { _group.detach(this); }

// ---------------------------------------------------------------------------
// runtime

namespace {

// Runs `callbacks` the first time `done` is set, outside the lock: a callback
// may register further callbacks.
void run_once(std::mutex& mutex, std::atomic<bool>& done, const std::vector<std::function<void()>>& registered) {
  std::vector<std::function<void()>> callbacks;
  {
    std::lock_guard<std::mutex> lock(mutex);
    if (done.exchange(true)) return;
    callbacks = registered;
  }
  for (auto& callback : callbacks) callback();
}

}  // namespace

void runtime::start() { run_once(_mutex, _started, _start_callbacks); }

void runtime::stop() { run_once(_mutex, _stopped, _stop_callbacks); }

}  // namespace cdl
