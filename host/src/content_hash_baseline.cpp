// XXH3-128 compiled for the baseline instruction set (see content_hash.hpp).
#define FAITRA_HASH_KERNEL baseline_kernel
#define FAITRA_HASH_NAME "baseline"
#include "content_hash_kernel.inc"
