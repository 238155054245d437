// Functions that are compiled twice.
#pragma once

#include <cstdlib>  // for __GLIBC__

// Before a function: compiles it, with all that is inlined into it, for every x86-64 processor and
// once more for those with AVX2, BMI and POPCNT. Where the loader can choose, it takes the one that
// suits the processor. It is worth some 5 % where lines are scanned and contexts coded; decoding
// gains nothing.
#if defined(__x86_64__) && defined(__GLIBC__) && !defined(__clang__) && !defined(VQPACK_PORTABLE)
#define VQPACK_CLONES [[gnu::target_clones("arch=x86-64-v3", "default")]]
#else
#define VQPACK_CLONES
#endif
