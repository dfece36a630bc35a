// The entry points of one compiled form of XXH3-128 (content_hash.hpp).
// Kept free of C++ library headers: the files that define kernels are
// compiled for wider instruction sets, and an inline library function
// emitted there could be the copy the linker keeps for everyone.
#pragma once

#include <stddef.h>

namespace faitra_host::detail {

struct hash_kernel {
  const char* name;
  void* (*create)();  // null when out of memory
  void (*update)(void* state, const void* data, size_t size);
  void (*digest)(void* state, unsigned char canonical[16]);
  void (*destroy)(void* state);
};

}  // namespace faitra_host::detail
