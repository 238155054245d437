// Counting and selecting bits of a word.
#pragma once

#include <array>
#include <bit>
#include <cassert>
#include <cstdint>

#include "processor.h"

namespace vqpack::detail {

// In byte i the number of bits of the bytes 0 to i of `word`.
inline std::uint64_t byte_sums(std::uint64_t word) {
  word -= word >> 1 & 0x5555555555555555;
  word = (word & 0x3333333333333333) + (word >> 2 & 0x3333333333333333);
  return ((word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F) * 0x0101010101010101;
}

// The number of bits that are set. Compilers know this form, and make one instruction of it where
// the processor that they compile for has it.
inline unsigned count_bits(std::uint64_t word) { return unsigned(byte_sums(word) >> 56); }

// [k][byte]: the k-th lowest set bit.
inline constexpr auto bit_in_byte = [] {
  std::array<std::array<unsigned char, 256>, 8> table{};
  for (unsigned byte = 0; byte < 256; ++byte)
    for (unsigned bit = 0, k = 0; bit < 8; ++bit)
      if (byte >> bit & 1) table[k++][byte] = static_cast<unsigned char>(bit);
  return table;
}();

inline unsigned select_bit_plainly(std::uint64_t word, unsigned k) {
  constexpr std::uint64_t each_byte = 0x0101010101010101, tops = 0x80 * each_byte;
  const std::uint64_t counted = byte_sums(word);
  const std::uint64_t above = ((counted | tops) - (k + 1) * each_byte) & tops;
  const unsigned byte = unsigned(std::countr_zero(above)) & ~7u;  // as a bit number
  k -= unsigned(counted << 8 >> byte) & 0xFF;
  return byte + bit_in_byte[k][word >> byte & 0xFF];
}

#ifdef VQPACK_X86

// Whether the processor has PDEP, and a fast one: some early ones take hundreds of cycles. A branch
// on this is always predicted right, and costs nothing.
inline const bool has_fast_pdep = [] {
  __builtin_cpu_init();
  return __builtin_cpu_supports("bmi2") && !__builtin_cpu_is("znver1") &&
         !__builtin_cpu_is("znver2");
}();

// The k-th lowest set bit of a word that has more than k.
inline unsigned select_bit(std::uint64_t word, unsigned k) {
  assert(k < count_bits(word));
  if (!has_fast_pdep) return select_bit_plainly(word, k);
  std::uint64_t selected;
  asm("pdep %1, %2, %0" : "=r"(selected) : "r"(word), "r"(std::uint64_t{1} << k));
  return unsigned(std::countr_zero(selected));
}

#else

inline unsigned select_bit(std::uint64_t word, unsigned k) {
  assert(k < count_bits(word));
  return select_bit_plainly(word, k);
}

#endif

}  // namespace vqpack::detail
