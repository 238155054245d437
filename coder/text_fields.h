// The fields of a text line: where they begin and end, and what they hold.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>

#include "bytes.h"
#include "processor.h"
#include "vqtypes.h"

#ifdef VQPACK_X86
#include <emmintrin.h>
#endif

namespace vqpack::detail::line_scan {

inline std::uint64_t load_8(const char* from) {
  return load_le<8>(reinterpret_cast<const unsigned char*>(from));
}

// Bit i stands for byte i: whether it is a blank, and whether it is a newline.
struct byte_marks {
  std::uint64_t blanks;
  std::uint64_t newlines;
};

// Sixteen characters as hexadecimal digits, the first one most significant.
struct hex_digits {
  std::uint64_t value;  // a blank counts as 0; what else is no digit spoils the digit before, too
  unsigned others;      // bit i: character i is no digit
};

#ifdef VQPACK_X86

// Sixteen times the same byte.
constexpr __m128i sixteen(unsigned char byte) {
  const std::uint64_t word = std::uint64_t{byte} * 0x0101010101010101;
  return __m128i{static_cast<long long>(word), static_cast<long long>(word)};
}

// What sixteen bytes at a time are compared and computed with. g++ would build such constants anew
// for each line, which takes a third of the time: so that it loads them, it must not see through
// the reference that every function here takes.
struct byte_vectors {
  __m128i blank = sixteen(' '), newline = sixteen('\n'), zero = sixteen('0'), nine = sixteen('9'),
          a = sixteen('a'), case_bit = sixteen('a' - 'A'), last_digit = sixteen(9),
          last_letter = sixteen(5), nibble = sixteen(0xF),
          low_byte = {0x00FF00FF00FF00FF, 0x00FF00FF00FF00FF};

  static const byte_vectors& hidden() {
    static constexpr byte_vectors vectors;
    const byte_vectors* known = &vectors;
    asm("" : "+r"(known));
    return *known;
  }
};

inline __m128i load_16(const char* from) {
  return _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
}

inline byte_marks mark_16(const char* from, const byte_vectors& v) {
  const __m128i bytes = load_16(from);
  const auto equal = [bytes](__m128i wanted) {
    return std::uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, wanted))));
  };
  return {equal(v.blank), equal(v.newline)};
}

// The value of a digit is its lower four bits and, for a letter, 9 more.
inline hex_digits scan_hex(const char* from, const byte_vectors& v) {
  const __m128i text = load_16(from);
  const __m128i above_digits = _mm_subs_epu8(_mm_sub_epi8(text, v.zero), v.last_digit);
  const __m128i above_letters =
      _mm_subs_epu8(_mm_sub_epi8(_mm_or_si128(text, v.case_bit), v.a), v.last_letter);
  const __m128i is_hex =
      _mm_cmpeq_epi8(_mm_min_epu8(above_digits, above_letters), _mm_setzero_si128());
  const __m128i letter_part = _mm_and_si128(_mm_cmpgt_epi8(text, v.nine), v.last_digit);
  const __m128i nibbles = _mm_add_epi8(_mm_and_si128(text, v.nibble), letter_part);
  const __m128i pairs = _mm_and_si128(
      _mm_or_si128(_mm_slli_epi16(nibbles, 4), _mm_srli_epi16(nibbles, 8)), v.low_byte);
  const auto bytes = std::uint64_t(_mm_cvtsi128_si64(_mm_packus_epi16(pairs, pairs)));
  return {__builtin_bswap64(bytes), unsigned(_mm_movemask_epi8(is_hex)) ^ 0xFFFF};
}

#else

struct byte_vectors {
  static byte_vectors hidden() { return {}; }
};

constexpr std::uint64_t each_byte = 0x0101010101010101;

// One bit for each byte of `tops` whose top bit, the only one that may be, is set.
inline unsigned gather_tops(std::uint64_t tops) {
  return unsigned((tops >> 7) * 0x0102040810204080 >> 56);
}

// One bit for each byte of `word` that is zero.
inline unsigned zero_bytes(std::uint64_t word) {
  constexpr std::uint64_t low_bits = 0x7F * each_byte;
  return gather_tops(~(((word & low_bits) + low_bits) | word | low_bits));
}

inline byte_marks mark_16(const char* from, byte_vectors) {
  byte_marks marks{0, 0};
  for (std::size_t half = 0; half < 2; ++half) {
    const std::uint64_t word = load_8(from + 8 * half);
    marks.blanks |= zero_bytes(word ^ ' ' * each_byte) << 8 * half;
    marks.newlines |= zero_bytes(word ^ '\n' * each_byte) << 8 * half;
  }
  return marks;
}

// Eight characters, the first one lowest in `text`.
inline hex_digits scan_hex_8(std::uint64_t text) {
  constexpr std::uint64_t tops = 0x80 * each_byte;
  const std::uint64_t low_bits = text & ~tops, small = low_bits | ('a' - 'A') * each_byte;
  // The top bit of a byte: it is not below the first character and not above the last one.
  const std::uint64_t digits =
      (low_bits + (0x80 - '0') * each_byte) & ~(low_bits + (0x7F - '9') * each_byte);
  const std::uint64_t letters =
      (small + (0x80 - 'a') * each_byte) & ~(small + (0x7F - 'f') * each_byte);
  const std::uint64_t nibbles = (text & 0xF * each_byte) + 9 * (letters >> 7 & each_byte);
  std::uint64_t value = (nibbles << 4 | nibbles >> 8) & 0x00FF00FF00FF00FF;
  value = (value | value >> 8) & 0x0000FFFF0000FFFF;
  value |= value >> 16;
  return {__builtin_bswap32(std::uint32_t(value)),
          gather_tops((~(digits | letters) | text) & tops)};
}

inline hex_digits scan_hex(const char* from, byte_vectors) {
  const hex_digits first = scan_hex_8(load_8(from)), second = scan_hex_8(load_8(from + 8));
  return {first.value << 32 | second.value, first.others | second.others << 8};
}

#endif

// By character: its value as a hexadecimal digit, or 0xFF.
inline constexpr auto hex_values = [] {
  std::array<unsigned char, 256> values{};
  values.fill(0xFF);
  for (unsigned i = 0; i < 10; ++i) values['0' + i] = static_cast<unsigned char>(i);
  for (unsigned i = 10; i < 16; ++i)
    values['A' + i - 10] = values['a' + i - 10] = static_cast<unsigned char>(i);
  return values;
}();

inline unsigned hex_value(char digit) { return hex_values[static_cast<unsigned char>(digit)]; }

// Takes a number of up to 8 decimal digits that ends at `end`; false if there is anything else. The
// digits come into a word, the first lowest, which then is added up by pairs, fours and eights.
inline bool scan_count(const char* from, const char* end, unsigned& count) {
  const auto length = end - from;
  assert(length > 0);
  if (length > 8) return false;
  std::uint64_t digits = load_8(end - 8);
  digits = (digits ^ 0x3030303030303030) & ~std::uint64_t{0} << (64 - 8 * length);
  if (((digits + 0x7676767676767676) | digits) & 0x8080808080808080) return false;
  digits = (digits * 10 + (digits >> 8)) & 0x00FF00FF00FF00FF;
  digits = (digits * 100 + (digits >> 16)) & 0x0000FFFF0000FFFF;
  count = unsigned(digits * 10000 + (digits >> 32));
  return true;
}

// A name as the last of 16 characters, the first of which is lowest. All are ^ ' ', so that blanks,
// which the others are, are 0.
struct name_word {
  std::uint64_t low = 0, high = 0;
};

constexpr std::uint64_t eight_blanks = 0x2020202020202020;

// That of columns 0 to 9 of a line.
inline name_word load_columns(const char* line) {
  return {(load_8(line) ^ eight_blanks) << 48, load_8(line + 2) ^ eight_blanks};
}

// That of the `length` characters before `end`, of which the last 16 count.
inline name_word load_name(const char* end, unsigned length) {
  const auto load = [](const char* from, unsigned kept) {
    return kept == 0 ? 0 : (load_8(from) ^ eight_blanks) & ~std::uint64_t{0} << (64 - 8 * kept);
  };
  return {load(end - 16, std::clamp(length, 8u, 16u) - 8), load(end - 8, std::min(length, 8u))};
}

// The names of the table by a hash of their characters, of which no two share a place.
class name_table {
 public:
  constexpr name_table() {
    velk_trans_class trans = 0;
    for (const char* const text : velk_trans_names) {
      int length = 0;
      while (text[length]) ++length;
      if (length > longest) throw "the blank before a name must be seen, too";
      place taken{{}, trans++};
      for (int i = 0, at = 16 - length; i < length; ++i, ++at)
        (at < 8 ? taken.name.low : taken.name.high) |= std::uint64_t(text[i] ^ ' ') << at % 8 * 8;
      place& free = places_[hash(taken.name)];
      if (free.trans != nothing) throw "two names share a place: choose another factor";
      free = taken;
    }
  }

  // The code of a name, if it has one; `mismatch` is 0 then.
  velk_trans_class find(const name_word& name, std::uint64_t& mismatch) const {
    const place& found = places_[hash(name)];
    mismatch = (found.name.low ^ name.low) | (found.name.high ^ name.high);
    return found.trans;
  }

 private:
  static constexpr int longest = 15;
  static constexpr velk_trans_class nothing = 0xFF;

  // Where there is none, the name is one that cannot come.
  struct place {
    name_word name{~std::uint64_t{0}, ~std::uint64_t{0}};
    velk_trans_class trans = nothing;
  };

  static constexpr unsigned hash(const name_word& name) {
    return unsigned((name.low + name.high) * 0x2C76DCD9FE037EA3 >> 56);
  }

  std::array<place, 256> places_{};
};

inline constexpr name_table names;

}  // namespace vqpack::detail::line_scan
