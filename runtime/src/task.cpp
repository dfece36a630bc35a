// Task identities and the task base.
#include <cdl/exception.hpp>
#include <cdl/task.hpp>

#include <map>
#include <mutex>

namespace cdl {

namespace {

struct type_registry {
  std::mutex mutex;
  std::map<std::string, uint32_t> ids;  // node-based: names keep their address
};

type_registry& registry() {
  // Never destroyed: identities handed out may be used until the very end.
  static type_registry* instance = new type_registry();
  return *instance;
}

const std::string& unnamed() {
  static const std::string* name = new std::string();
  return *name;
}

}  // namespace

task_type task_type::identify_from_name(const std::string& name) {
  type_registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  auto [it, inserted] = r.ids.try_emplace(name, static_cast<uint32_t>(r.ids.size() + 1));
  return task_type(it->second, &it->first);
}

const std::string& task_type::name() const { return _name != nullptr ? *_name : unnamed(); }

task::~task() = default;

task* task::clone() const {
  throw exception(CDL_FILE_NAME, __LINE__, "Task %s cannot be cloned.", name());
}

task_listener::~task_listener() = default;

}  // namespace cdl
