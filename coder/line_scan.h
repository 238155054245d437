// Text lines to transactions, for lines of the usual shape.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "bytes.h"
#include "processor.h"
#include "vqtypes.h"

#ifdef VQPACK_X86
#include <emmintrin.h>
#endif

namespace vqpack::detail {

// The plain form of a line scan is sscanf with "%19s%llx%x %u%c" and the name parser. It takes
// hundreds of nanoseconds a line, and all of its edge cases (signs, prefixes, tabs, numbers that
// overflow, fields that run into each other) are legal. Here a line is taken only if it ends within
// 64 bytes and consists of fields that are separated by blanks: a name of the table, an address of
// at most 16 hexadecimal digits, an agent of at most 8 and possibly a count of at most 8 decimal
// ones. Whatever follows after a blank is ignored, as in the plain form, which takes all other
// lines.
namespace line_scan {

// Bytes that must be readable from the start of a line on and before it, whatever they are.
constexpr std::size_t readable_after = 64;
constexpr std::size_t readable_before = 16;

// Bit i stands for byte i: whether it is a blank, and whether it is a newline.
struct byte_marks {
  std::uint64_t blanks;
  std::uint64_t newlines;
};

#ifdef VQPACK_X86

inline byte_marks mark_16(const char* from) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  const auto equal = [bytes](char wanted) {
    return std::uint64_t(unsigned(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(wanted)))));
  };
  return {equal(' '), equal('\n')};
}

#else

// One bit for each byte of `word` that is zero.
inline std::uint64_t zero_bytes(std::uint64_t word) {
  constexpr std::uint64_t low_bits = 0x7F7F7F7F7F7F7F7F;
  const std::uint64_t tops = ~(((word & low_bits) + low_bits) | word | low_bits);
  return (tops >> 7) * 0x0102040810204080 >> 56;
}

inline byte_marks mark_16(const char* from) {
  byte_marks marks{0, 0};
  for (std::size_t half = 0; half < 2; ++half) {
    const std::uint64_t word = load_le<8>(reinterpret_cast<const unsigned char*>(from + 8 * half));
    marks.blanks |= zero_bytes(word ^ 0x2020202020202020) << 8 * half;
    marks.newlines |= zero_bytes(word ^ 0x0A0A0A0A0A0A0A0A) << 8 * half;
  }
  return marks;
}

#endif

inline byte_marks mark_32(const char* from) {
  const byte_marks first = mark_16(from), second = mark_16(from + 16);
  return {first.blanks | second.blanks << 16, first.newlines | second.newlines << 16};
}

// By character: its value as a hexadecimal digit, or 0xFF.
inline constexpr auto hex_values = [] {
  std::array<unsigned char, 256> values{};
  values.fill(0xFF);
  for (unsigned i = 0; i < 10; ++i) values['0' + i] = static_cast<unsigned char>(i);
  for (unsigned i = 10; i < 16; ++i)
    values['A' + i - 10] = values['a' + i - 10] = static_cast<unsigned char>(i);
  return values;
}();

// Takes a number of 1 to 16 hexadecimal digits that ends at `end`; false if there is anything else.
#ifdef VQPACK_X86

inline __m128i load_16(const void* at) { return _mm_loadu_si128(static_cast<const __m128i*>(at)); }

// The last `count` bytes, or all if there are fewer.
inline __m128i last_bytes(std::ptrdiff_t count) {
  static constexpr auto masks = [] {
    std::array<unsigned char, 32> bytes{};
    for (unsigned i = 16; i < bytes.size(); ++i) bytes[i] = 0xFF;
    return bytes;
  }();
  return load_16(masks.data() + std::min<std::ptrdiff_t>(count, 16));
}

inline bool scan_hex(const char* from, const char* end, std::uint64_t& value) {
  assert(from < end && end - from <= 16);
  const auto up_to = [](__m128i bytes, char last) {
    return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(last)), bytes);
  };
  const __m128i number = last_bytes(end - from);
  const __m128i text = load_16(end - 16);
  const __m128i digits = _mm_sub_epi8(text, _mm_set1_epi8('0'));
  const __m128i letters =
      _mm_sub_epi8(_mm_or_si128(text, _mm_set1_epi8('a' - 'A')), _mm_set1_epi8('a'));
  const __m128i are_digits = up_to(digits, 9);
  const __m128i are_letters = up_to(letters, 5);
  const __m128i others = _mm_andnot_si128(_mm_or_si128(are_digits, are_letters), number);
  const __m128i nibbles = _mm_and_si128(
      number, _mm_or_si128(_mm_and_si128(digits, are_digits),
                           _mm_and_si128(_mm_add_epi8(letters, _mm_set1_epi8(10)), are_letters)));
  // Two nibbles to a byte, which end up most significant first.
  const __m128i pairs = _mm_and_si128(
      _mm_or_si128(_mm_slli_epi16(nibbles, 4), _mm_srli_epi16(nibbles, 8)), _mm_set1_epi16(0xFF));
  const auto bytes = std::uint64_t(_mm_cvtsi128_si64(_mm_packus_epi16(pairs, pairs)));
  value = __builtin_bswap64(bytes);
  return _mm_movemask_epi8(others) == 0;
}

#else

inline bool scan_hex(const char* from, const char* end, std::uint64_t& value) {
  assert(from < end && end - from <= 16);
  value = 0;
  unsigned seen = 0;
  for (; from != end; ++from) {
    const unsigned digit = hex_values[static_cast<unsigned char>(*from)];
    seen |= digit;
    value = value << 4 | (digit & 0xF);
  }
  return seen <= 0xF;
}

#endif

// The same for one of up to 8 digits, nearly always one.
inline bool scan_agent(const char* from, const char* end, int& agent) {
  if (end - from == 1) {
    agent = hex_values[static_cast<unsigned char>(*from)];
    return agent <= 0xF;
  }
  std::uint64_t value;
  const bool is_number = end - from <= 8 && scan_hex(from, end, value);
  if (is_number) agent = static_cast<int>(value);
  return is_number;
}

// The same for one of up to 8 decimal digits. They come into a word, the first lowest, which then
// is added up by pairs, fours and eights.
inline bool scan_count(const char* from, const char* end, unsigned& count) {
  const auto length = end - from;
  assert(length > 0);
  if (length > 8) return false;
  std::uint64_t digits = load_le<8>(reinterpret_cast<const unsigned char*>(end - 8));
  digits = (digits ^ 0x3030303030303030) & ~std::uint64_t{0} << (64 - 8 * length);
  if (((digits + 0x7676767676767676) | digits) & 0x8080808080808080) return false;
  digits = (digits * 10 + (digits >> 8)) & 0x00FF00FF00FF00FF;
  digits = (digits * 100 + (digits >> 16)) & 0x0000FFFF0000FFFF;
  count = unsigned(digits * 10000 + (digits >> 32));
  return true;
}

// The 16 characters before `end`, the first one lowest; those before the line, which has `length`
// characters before `end`, count as blanks. All are ^ ' ', so that blanks are 0.
struct name_word {
  std::uint64_t low = 0, high = 0;
};

#ifdef VQPACK_X86

inline name_word load_name(const char* end, unsigned length) {
  const __m128i name =
      _mm_and_si128(_mm_xor_si128(load_16(end - 16), _mm_set1_epi8(' ')), last_bytes(length));
  return {std::uint64_t(_mm_cvtsi128_si64(name)),
          std::uint64_t(_mm_cvtsi128_si64(_mm_unpackhi_epi64(name, name)))};
}

#else

inline name_word load_name(const char* end, unsigned length) {
  const auto load = [](const char* from, unsigned kept) {
    const std::uint64_t word = load_le<8>(reinterpret_cast<const unsigned char*>(from));
    return kept == 0 ? 0 : (word ^ 0x2020202020202020) & ~std::uint64_t{0} << (64 - 8 * kept);
  };
  return {load(end - 16, std::clamp(length, 8u, 16u) - 8), load(end - 8, std::min(length, 8u))};
}

#endif

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

  // The code of a name; false if it has none.
  bool find(const name_word& name, velk_trans_class& trans) const {
    const place& found = places_[hash(name)];
    trans = found.trans;
    return found.name.low == name.low && found.name.high == name.high;
  }

 private:
  static constexpr int longest = 15;
  static constexpr velk_trans_class nothing = 0xFF;

  struct place {
    name_word name;
    velk_trans_class trans = nothing;
  };

  static constexpr unsigned hash(const name_word& name) {
    return unsigned((name.low + name.high) * 0x2C76DCD9FE037EA3 >> 56);
  }

  std::array<place, 256> places_{};
};

inline constexpr name_table names;

// Takes the line at `line` if it is of the usual shape, and returns its length, newline included;
// returns 0 if it is not.
[[gnu::always_inline]] inline unsigned scan_usual_line(const char* line, VQtransaction& t) {
  byte_marks marks = mark_32(line);
  if (marks.newlines == 0) {
    const byte_marks more = mark_32(line + 32);
    marks = {marks.blanks | more.blanks << 32, more.newlines << 32};
    if (marks.newlines == 0) return 0;
  }
  const auto line_end = unsigned(std::countr_zero(marks.newlines));

  // Where fields begin and end: the bits of `edges`, one after another.
  const std::uint64_t text = ~marks.blanks & ((std::uint64_t{1} << line_end) - 1);
  std::uint64_t edges = text ^ text << 1;
  const auto next_edge = [&edges] {
    const auto edge = unsigned(std::countr_zero(edges));
    edges &= edges - 1;
    return edge;
  };
  next_edge();
  const unsigned name_end = next_edge();
  const unsigned addr = next_edge(), addr_end = next_edge();
  const unsigned agent = next_edge();
  if (edges == 0) return 0;
  const unsigned agent_end = next_edge();

  std::uint64_t addr_value;
  if (addr_end - addr > 16 || !names.find(load_name(line + name_end, name_end), t.trans) ||
      !scan_hex(line + addr, line + addr_end, addr_value) ||
      !scan_agent(line + agent, line + agent_end, t.agent))
    return 0;
  t.addr = static_cast<long long>(addr_value);
  t.count = 1;
  if (edges != 0) {
    const unsigned count = next_edge(), count_end = next_edge();
    if (!scan_count(line + count, line + count_end, t.count)) return 0;
  }
  return line_end + 1;
}

// Takes lines from `at` on, up to `size`, as long as they are of the usual shape and start before
// `end`. Moves `at` past them and returns how many they are.
VQPACK_CLONES inline std::size_t scan_usual_lines(const char*& at, const char* end,
                                                  VQtransaction* to, std::size_t size) {
  const char* line = at;
  std::size_t done = 0;
  for (; done < size && line < end; ++done) {
    const unsigned length = scan_usual_line(line, to[done]);
    if (length == 0) break;
    line += length;
  }
  at = line;
  return done;
}

}  // namespace line_scan

}  // namespace vqpack::detail
