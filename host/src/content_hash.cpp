#include "content_hash.hpp"

#include <new>

namespace faitra_host::detail {

extern const hash_kernel baseline_kernel;
#if defined(__x86_64__)
extern const hash_kernel avx2_kernel;
extern const hash_kernel avx512_kernel;
#endif

namespace {

const hash_kernel& pick() {
#if defined(__x86_64__)
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx512f")) return avx512_kernel;
  if (__builtin_cpu_supports("avx2")) return avx2_kernel;
#endif
  return baseline_kernel;
}

const hash_kernel& chosen() {
  static const hash_kernel& kernel = pick();
  return kernel;
}

}  // namespace

content_hash::content_hash() : _kernel(&chosen()), _state(_kernel->create()) {
  if (_state == nullptr) throw std::bad_alloc();
}

content_hash::~content_hash() { _kernel->destroy(_state); }

const char* content_hash::kernel_name() { return chosen().name; }

std::string content_hash::hex() {
  unsigned char canonical[16];
  _kernel->digest(_state, canonical);
  static const char digits[] = "0123456789abcdef";
  std::string out(32, '0');
  for (size_t i = 0; i < 16; ++i) {
    out[2 * i] = digits[canonical[i] >> 4];
    out[2 * i + 1] = digits[canonical[i] & 0xf];
  }
  return out;
}

}  // namespace faitra_host::detail
