// Thread-local bookkeeping of csl::recursive_shared_mutex.
#include <csl/utils/recursive_shared_mutex.hpp>

namespace csl {

thread_local std::map<const recursive_shared_mutex*, uint64_t> recursive_shared_mutex::recursion_count;
thread_local std::map<const recursive_shared_mutex*, recursive_shared_mutex::lock_type>
    recursive_shared_mutex::lock_types;

}  // namespace csl
