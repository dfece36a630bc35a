// XXH3-128 compiled for the avx2 instruction set (see content_hash.hpp).
#define FAITRA_HASH_KERNEL avx2_kernel
#define FAITRA_HASH_NAME "avx2"
#include "content_hash_kernel.inc"
