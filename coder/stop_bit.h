// Stop-bit numbers: groups of 7 bits, least significant first, one a byte; bit 7 marks the last
// byte. A signed number is cut off where the rest is a sign extension of bit 6. qubix(5).
#pragma once

#include <algorithm>
#include <type_traits>

#include "bytes.h"

namespace vqpack::detail {

constexpr int stop_bit_group = 7;
constexpr unsigned char stop_bit = 0x80;

// The most bytes that a number of `bits` significant bits takes.
constexpr int stop_bit_bytes(int bits) { return (bits + stop_bit_group - 1) / stop_bit_group; }

// Whether two bytes hold a number.
constexpr bool is_short(unsigned long long value) { return value < 1 << 2 * stop_bit_group; }
constexpr bool is_short_signed(long long value) {
  return is_short(static_cast<unsigned long long>(value) + (1 << (2 * stop_bit_group - 1)));
}

// Writes the lower 14 bits of a number in two bytes or, of 7 bits, in one. The next
// length is unpredictable: so two bytes are written in any case, without a branch, and the caller
// may have to overwrite the second.
inline unsigned char* put_short_stop_bit(unsigned char* to, unsigned value, bool two_bytes) {
  const unsigned upper_group = value & ~0x7Fu;
  const unsigned mark = stop_bit + (0x7F80 & -unsigned(two_bytes));  // on the first or the second
  store_le<2>(to, (value + upper_group) | mark);
  return to + 1 + two_bytes;
}

// Writes `value` at `to` and returns the position after it. May write one byte more.
inline unsigned char* put_stop_bit(unsigned char* to, unsigned long long value) {
  if (is_short(value)) return put_short_stop_bit(to, unsigned(value), value > 0x7F);
  for (; value > 0x7F; value >>= stop_bit_group) *to++ = static_cast<unsigned char>(value & 0x7F);
  *to++ = static_cast<unsigned char>(value | stop_bit);
  return to;
}

// The same for a signed number.
inline unsigned char* put_signed_stop_bit(unsigned char* to, long long value) {
  const bool two_bytes = static_cast<unsigned long long>(value) + 0x40 > 0x7F;
  if (is_short_signed(value)) return put_short_stop_bit(to, unsigned(value), two_bytes);
  for (; value < -64 || value > 63; value >>= stop_bit_group)
    *to++ = static_cast<unsigned char>(value & 0x7F);
  *to++ = static_cast<unsigned char>((value & 0x7F) | stop_bit);
  return to;
}

// Reads a number of any length at `from` and moves `from` past it; `bits` receives the number of
// bits that it delivered. Bits beyond the width of `Unsigned` are dropped. The caller
// ensures that a byte with the stop bit set follows within the allocation, and one more byte.
// Numbers of one and of two bytes take the same path, without a branch, as in
// put_short_stop_bit().
template <class Unsigned>
Unsigned get_stop_bit(const unsigned char*& from, int& bits) {
  static_assert(std::is_unsigned_v<Unsigned>);
  constexpr int width = 8 * sizeof(Unsigned);
  const auto pair = unsigned(load_le<2>(from));
  if (pair & (stop_bit | stop_bit << 8)) {
    const unsigned two_bytes = ~pair >> 7 & 1;
    from += 1 + two_bytes;
    bits = stop_bit_group * int(1 + two_bytes);
    return (pair & 0x7F) | (pair >> 1 & 0x3F80 & -two_bytes);
  }
  Unsigned value = 0;
  for (bits = 0;;) {
    const unsigned char byte = *from++;
    if (bits < width) {
      value |= Unsigned(byte & 0x7F) << bits;
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
