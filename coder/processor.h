// What the code may use of the processor.
#pragma once

#include <cstdlib>  // for __GLIBC__

// VQPACK_X86: the instructions that every x86-64 processor has, SSE2 among them, may be used. Where
// it is not defined, or VQPACK_PORTABLE is, everything has a form in plain C++.
#if defined(__x86_64__) && !defined(VQPACK_PORTABLE)
#define VQPACK_X86
#endif

// Before a function: compiles it, with all that is inlined into it, for every x86-64 processor and
// once more for those with AVX2, BMI and POPCNT. Where the loader can choose, it takes the one that
// suits the processor. This gains some 5 % where lines are scanned and contexts coded, and nothing
// where they are decoded. g++ 11 lacks it; the thread sanitizer is not ready when the loader asks;
// and shared libraries would export what chooses (VQPACK_NO_CLONES).
#if defined(VQPACK_X86) && defined(__GLIBC__) && !defined(__clang__) && __GNUC__ >= 12 && \
    !defined(__SANITIZE_THREAD__) && !defined(VQPACK_NO_CLONES)
#define VQPACK_CLONES [[gnu::target_clones("arch=x86-64-v3", "default")]]
#else
#define VQPACK_CLONES
#endif
