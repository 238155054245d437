// Memory fetched ahead of its use.
#pragma once

namespace vqpack::detail {

// Asks for the cache line of an address, and does not wait for it. g++ drops calls of functions
// that only prefetch, as if they had no effect; the empty statement keeps it from that.
inline void prefetch(const void* address) {
  __builtin_prefetch(address);
  asm volatile("");
}

}  // namespace vqpack::detail
