// Stop-bit numbers: groups of 7 bits, least significant first, one a byte; bit 7 marks the last
// byte. A signed number is cut off where the rest is a sign extension of bit 6. qubix(5).
#pragma once

#include <algorithm>
#include <type_traits>

#include "bytes.h"

namespace vqpack::detail {

constexpr int stop_bit_group = 7;
constexpr unsigned char stop_bit = 0x80;
constexpr unsigned group_mask = (1 << stop_bit_group) - 1;
constexpr unsigned upper_group_mask = group_mask << stop_bit_group;  // of two groups

// The most bytes that a number of `bits` significant bits takes.
constexpr int stop_bit_bytes(int bits) { return (bits + stop_bit_group - 1) / stop_bit_group; }

// Whether two bytes hold a number.
constexpr bool is_short(unsigned long long value) { return value < 1 << 2 * stop_bit_group; }

// Whether one byte holds it.
constexpr bool is_one_group(long long value) {
  return static_cast<unsigned long long>(value) + (1 << (stop_bit_group - 1)) < 1 << stop_bit_group;
}

// Writes `value` at `to` and returns the position after it. May write one byte more: the next
// length is unpredictable, and a wrong guess costs more than two bytes in any case.
inline unsigned char* put_stop_bit(unsigned char* to, unsigned long long value) {
  if (is_short(value)) {
    const int bytes = 1 + (value > group_mask);
    store_le<2>(to, (value + (value & upper_group_mask)) | unsigned{stop_bit} << 8 * bytes >> 8);
    return to + bytes;
  }
  for (; value > group_mask; value >>= stop_bit_group)
    *to++ = static_cast<unsigned char>(value & group_mask);
  *to++ = static_cast<unsigned char>(value | stop_bit);
  return to;
}

// The same for a signed number, and no byte more.
inline unsigned char* put_signed_stop_bit(unsigned char* to, long long value) {
  for (; !is_one_group(value); value >>= stop_bit_group)
    *to++ = static_cast<unsigned char>(value & group_mask);
  *to++ = static_cast<unsigned char>((value & group_mask) | stop_bit);
  return to;
}

// Reads a number of any length at `from` and moves `from` past it; `bits` receives the number of
// bits that it delivered. Bits beyond the width of `Unsigned` are dropped. The caller ensures that
// a byte with the stop bit set follows within the allocation, and one more byte. Numbers of one and
// of two bytes take the same path, without a branch.
template <class Unsigned>
Unsigned get_stop_bit(const unsigned char*& from, int& bits) {
  static_assert(std::is_unsigned_v<Unsigned>);
  constexpr int width = 8 * sizeof(Unsigned);
  const auto pair = unsigned(load_le<2>(from));
  if (pair & (stop_bit | stop_bit << 8)) {
    const unsigned two_bytes = ~pair >> 7 & 1;
    from += 1 + two_bytes;
    bits = stop_bit_group * int(1 + two_bytes);
    return (pair & group_mask) | (pair >> 1 & upper_group_mask & -two_bytes);
  }
  Unsigned value = 0;
  for (bits = 0;;) {
    const unsigned char byte = *from++;
    if (bits < width) {
      value |= Unsigned(byte & group_mask) << bits;
      bits += stop_bit_group;
    }
    if (byte & stop_bit) return value;
  }
}

template <class Unsigned>
Unsigned get_stop_bit(const unsigned char*& from) {
  int bits;
  return get_stop_bit<Unsigned>(from, bits);
}

// The same for a signed number of 64 bits.
inline long long get_signed_stop_bit(const unsigned char*& from) {
  int bits;
  const auto value = get_stop_bit<unsigned long long>(from, bits);
  const int unused = 64 - std::min(bits, 64);
  return static_cast<long long>(value << unused) >> unused;
}

}  // namespace vqpack::detail
