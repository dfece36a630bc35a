// content_hash: XXH3-128 of a byte stream, fed block by block, as the 32
// lower-case hex digits that `xxh128sum` prints.
//
// The hash is the one in libxxhash; its header-only form is compiled three
// times (baseline x86-64, AVX2, AVX-512) and the widest one the processor
// supports is picked once at run time. Debian's shared library is built for
// the baseline only, where hashing is slower than reading the file from the
// page cache; with the wide kernels the summary pass stays close to the
// speed of read(2). Every kernel gives the same value.
//
// Thread-safety: one object per thread; the kernel choice is made once,
// thread-safely.
#pragma once

#include "content_hash_kernel.hpp"

#include <cstddef>
#include <string>

namespace faitra_host::detail {

class content_hash {
 public:
  content_hash();
  ~content_hash();
  content_hash(const content_hash&) = delete;
  content_hash& operator=(const content_hash&) = delete;

  void update(const void* data, size_t size) { _kernel->update(_state, data, size); }
  std::string hex();
  // The kernel in use ("avx512", "avx2" or "baseline").
  static const char* kernel_name();

 private:
  const hash_kernel* _kernel;
  void* _state;
};

}  // namespace faitra_host::detail
