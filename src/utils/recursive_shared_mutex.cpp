// csl::recursive_shared_mutex: its operations and thread-local bookkeeping.
#include <csl/utils/recursive_shared_mutex.hpp>

namespace csl {

namespace {

// Where the calling thread's map entries of the mutex it used last are. Map
// entries never move and are never removed while the thread lives, so the
// pointers stay valid; the maps remain the only record of the state.
struct last_used_entries {
  const recursive_shared_mutex* mutex = nullptr;
  uint64_t* count = nullptr;
  recursive_shared_mutex::lock_type* type = nullptr;
};
thread_local last_used_entries last_used;

// The upgrade assertion names the header that states the lock's contract.
constexpr const char* CONTRACT_FILE = "recursive_shared_mutex.hpp";

}  // namespace

thread_local std::map<const recursive_shared_mutex*, uint64_t> recursive_shared_mutex::recursion_count;
thread_local std::map<const recursive_shared_mutex*, recursive_shared_mutex::lock_type>
    recursive_shared_mutex::lock_types;

recursive_shared_mutex::entries recursive_shared_mutex::this_thread_entries() {
  if (last_used.mutex != this) {
    init();
    last_used = {this, &recursion_count.find(this)->second, &lock_types.find(this)->second};
  }
  return {*last_used.count, *last_used.type};
}

void recursive_shared_mutex::lock() {
  auto [count, type] = this_thread_entries();
  if (type == lock_type::shared) {
    cdl::throw_assert(CONTRACT_FILE, 23, "Upgrading a shared lock to exlusive lock is not supported.");
  }
  if (owner.load() == std::this_thread::get_id()) {
    ++count;
    return;
  }
  _mutex.lock();
  owner = std::this_thread::get_id();
  count = 1;
  type = lock_type::exclusive;
}

void recursive_shared_mutex::unlock() {
  auto [count, type] = this_thread_entries();
  if (count < 2) {
    owner = std::thread::id();
    count = 0;
    type = lock_type::none;
    _mutex.unlock();
  } else {
    --count;
  }
}

void recursive_shared_mutex::lock_shared() {
  auto [count, type] = this_thread_entries();
  if (count == 0) {
    _mutex.lock_shared();
    if (type == lock_type::none) type = lock_type::shared;
    // The count deliberately stays 0: nested shared holds are not counted.
  } else {
    ++count;
  }
}

void recursive_shared_mutex::unlock_shared() {
  auto [count, type] = this_thread_entries();
  if (count < 2) {
    count = 0;
    type = lock_type::none;
    _mutex.unlock_shared();
  } else {
    --count;
  }
}

}  // namespace csl
