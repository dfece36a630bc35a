// Handler registration and typed dispatch of tasks.
//
// A handler is a member function taking `cdl::task_ptr<T>&`. Registration
// files it under (identify<T>(), version) in the dispatcher of the channel's
// worker, with a sequence number from a process-wide counter; handlers of
// order `last` get the sequence mirrored to the top of the range, so they
// sort after all others and, among themselves, the later registration first.
//
// task_mapping<T>::dispatch moves the generic handle into a typed one, calls
// the handler, and hands the task back unless the handler kept it; the
// hand-back also happens when the handler throws, and the exception then
// propagates unchanged.
//
// Thread-safety: see <cdl/task_system.hpp>.
#pragma once

#include <cdl/exception.hpp>
#include <cdl/task_ptr.hpp>
// The declarations this header defines members of; that header includes this
// one at its end, so either may be included first.
#include <cdl/task_system.hpp>

#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <typeinfo>

namespace cdl {

template <typename T>
class task_type_comparator : public task_type_comparator_base {
 public:
  task_type_comparator() : _type(task_type::identify<T>()) {}
  explicit task_type_comparator(const task_type& type) : _type(type) {}
  bool is_base_of(task* t) const override {
    if (t == nullptr) return false;
    if (t->type() == _type) return false;
    return dynamic_cast<T*>(t) != nullptr;
  }

 private:
  task_type _type;
};

template <typename T>
class task_mapping : public task_mapping_base {
 public:
  task_mapping(std::function<void(task_ptr<T>&)> handler, task_handler_order order, unsigned long sequence)
      : task_mapping(std::move(handler), order, sequence, task_type::identify<T>()) {}
  task_mapping(std::function<void(task_ptr<T>&)> handler, task_handler_order order, unsigned long sequence,
               const task_type& type)
      : _handler_type_name(typeid(handler).name()),
        _task_type(type),
        _task_type_name(_task_type.name()),
        _handler(std::move(handler)),
        _order(order),
        _sequence(sequence) {}

  void dispatch(task_ptr<task>& task) override {
    if (!task) {
      throw exception(CDL_FILE_NAME, 240, "Could not dispatch a task (%s). It is a nullptr.", _task_type.name());
    }
    task_ptr<T> typed(std::move(task));
    try {
      _handler(typed);
    } catch (...) {
      if (typed) task.reset(std::move(typed));
      throw;
    }
    if (typed) task.reset(std::move(typed));
  }

  task_handler_order order() const override { return _order; }
  unsigned long sequence() const override { return _sequence; }
  const std::string& task_type_name() const override { return _task_type_name; }
  const std::string& handler_type_name() const { return _handler_type_name; }

 private:
  std::string _handler_type_name;
  task_type _task_type;
  std::string _task_type_name;
  std::function<void(task_ptr<T>&)> _handler;
  task_handler_order _order;
  unsigned long _sequence;
};

template <typename T, typename C>
void task_dispatcher::register_task_handler(void (C::*method)(task_ptr<T>&), C* object, task_handler_order order,
                                            unsigned long version) {
  register_task_handler<T>(std::function<void(task_ptr<T>&)>([object, method](task_ptr<T>& t) { (object->*method)(t); }),
                           order, version);
}

template <typename T>
void task_dispatcher::register_task_handler(std::function<void(task_ptr<T>&)> handler, task_handler_order order,
                                            unsigned long version) {
  register_task_handler_as<T>(task_type::identify<T>(), std::move(handler), order, version);
}

template <typename T>
void task_dispatcher::register_task_handler_as(const task_type& type, std::function<void(task_ptr<T>&)> handler,
                                               task_handler_order order, unsigned long version) {
  std::lock_guard<std::mutex> lock(_mutex);
  task_entry& entry = _entries[key_type(type, version)];
  if (!entry.comparator) entry.comparator = std::make_unique<task_type_comparator<T>>(type);
  unsigned long sequence = counter;
  counter = counter + 1;
  if (order == task_handler_order::last) sequence = std::numeric_limits<unsigned long>::max() - sequence;
  entry.handlers.push_back(std::make_shared<task_mapping<T>>(std::move(handler), order, sequence, type));
  sort(entry);
}

template <typename T, typename C>
void task_channel::register_task_handler(void (C::*method)(task_ptr<T>&), C* object, task_handler_order order,
                                         unsigned long version) {
  register_task_type_and_version(task_type::identify<T>(), version);
  task_dispatcher& dispatcher = (*_dispatchers)[worker_id()];
  dispatcher.register_task_handler(method, object, order, version);
}

template <typename T, typename C>
void task_channel::register_task_handler_as(const task_type& type, void (C::*method)(task_ptr<T>&), C* object,
                                            task_handler_order order, unsigned long version) {
  register_task_type_and_version(type, version);
  task_dispatcher& dispatcher = (*_dispatchers)[worker_id()];
  dispatcher.register_task_handler_as<T>(
      type, std::function<void(task_ptr<T>&)>([object, method](task_ptr<T>& t) { (object->*method)(t); }), order,
      version);
}

template <typename C>
void runtime::register_start_callback(void (C::*method)(), C* object) {
  std::lock_guard<std::mutex> lock(_mutex);
  _start_callbacks.push_back([object, method] { (object->*method)(); });
}

template <typename C>
void runtime::register_stop_callback(void (C::*method)(), C* object) {
  std::lock_guard<std::mutex> lock(_mutex);
  _stop_callbacks.insert(_stop_callbacks.begin(), [object, method] { (object->*method)(); });
}

}  // namespace cdl
