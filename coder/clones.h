// Functions that are compiled twice.
#pragma once

#include <cstdlib>  // for __GLIBC__

// Before a function: compiles it, with all that is inlined into it, for every x86-64 processor and
// once more for those with AVX2, BMI and POPCNT. Where the loader can choose, it takes the one that
// suits the processor. It is worth some 5 % where lines are scanned and contexts coded; decoding
// gains nothing. g++ 11 does not know how; the thread sanitizer is not ready when the loader asks;
// and shared libraries would export what chooses (VQPACK_NO_CLONES).
#if defined(__x86_64__) && defined(__GLIBC__) && !defined(__clang__) && __GNUC__ >= 12 && \
    !defined(__SANITIZE_THREAD__) && !defined(VQPACK_NO_CLONES) && !defined(VQPACK_PORTABLE)
#define VQPACK_CLONES [[gnu::target_clones("arch=x86-64-v3", "default")]]
#else
#define VQPACK_CLONES
#endif
