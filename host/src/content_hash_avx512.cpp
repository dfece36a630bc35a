// XXH3-128 compiled for the avx512 instruction set (see content_hash.hpp).
#define FAITRA_HASH_KERNEL avx512_kernel
#define FAITRA_HASH_NAME "avx512"
#include "content_hash_kernel.inc"
