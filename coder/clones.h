// Functions that are compiled twice.
#pragma once

#include <features.h>

// Before a function: compiles it, with all that is inlined into it, for every x86-64 processor and
// once more for those with AVX2, BMI and POPCNT. The loader takes the one that suits the processor,
// at no cost for the calls; it must be able to do that.
#if defined(__x86_64__) && defined(__GLIBC__) && !defined(__clang__) && !defined(VQPACK_PORTABLE)
#define VQPACK_CLONES [[gnu::target_clones("arch=x86-64-v3", "default")]]
#else
#define VQPACK_CLONES
#endif
