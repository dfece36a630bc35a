// The task base, task identities and the listener base of the host runtime.
//
// cdl::task is the polymorphic base of everything that travels through task
// channels. It carries the version of its type; handlers are registered per
// (type, version) and receive tasks of exactly that pair.
//
// cdl::task_type is the identity of a task class: identify_from_name gives
// the same identity for the same name for the life of the process, and
// identities are ordered (by first registration) so they can key maps.
//
// Thread-safety: identify_from_name is safe from any thread; a task object
// is owned by one thread at a time.
#pragma once

#include <cstdint>
#include <string>

namespace cdl {

class task_type {
 public:
  // An identity that matches no task class.
  task_type() = default;

  static task_type identify_from_name(const std::string& name);
  // The process-wide identity of task class T (defined in <cdl/task_ptr.hpp>).
  template <typename T>
  static const task_type& identify();

  const std::string& name() const;
  uint32_t id() const { return _id; }

  bool operator<(const task_type& other) const { return _id < other._id; }
  bool operator==(const task_type& other) const { return _id == other._id; }
  bool operator!=(const task_type& other) const { return _id != other._id; }

 private:
  task_type(uint32_t id, const std::string* name) : _id(id), _name(name) {}

  uint32_t _id = 0;
  const std::string* _name = nullptr;
};

class task {
 public:
  explicit task(unsigned long version) : _version(version) {}
  virtual ~task();

  virtual const task_type& type() const = 0;
  virtual const std::string& name() const = 0;
  // A new heap copy of the task. Task classes that can be copied override
  // it; the base raises cdl::exception.
  virtual task* clone() const;

  unsigned long version() const { return _version; }

 private:
  unsigned long _version;
};

// Base of components that register task handlers.
class task_listener {
 public:
  virtual ~task_listener();
};

}  // namespace cdl
