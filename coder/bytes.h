// Little-endian integers in byte arrays, at any alignment and on any machine.
#pragma once

#include <bit>
#include <cstring>

namespace vqpack::detail {

// Reads `Bytes` bytes (1 to 8) at `from`, least significant first. Compilers do not make one load
// of the loop.
template <int Bytes>
inline unsigned long long load_le(const unsigned char* from) {
  unsigned long long value = 0;
  if constexpr (std::endian::native == std::endian::little)
    std::memcpy(&value, from, Bytes);
  else
    for (int i = Bytes; i-- > 0;) value = value << 8 | from[i];
  return value;
}

// Writes the low `Bytes` bytes (1 to 8) of `value` at `to`, least significant first.
// Returns the position just after them.
template <int Bytes>
inline unsigned char* store_le(unsigned char* to, unsigned long long value) {
  if constexpr (std::endian::native == std::endian::little)
    std::memcpy(to, &value, Bytes);
  else
    for (int i = 0; i < Bytes; ++i) to[i] = static_cast<unsigned char>(value >> (8 * i));
  return to + Bytes;
}

}  // namespace vqpack::detail
