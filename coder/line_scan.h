// Text lines to transactions, for lines of the usual shape.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__) && !defined(VQPACK_PORTABLE)
#include <emmintrin.h>
#endif

#include "bytes.h"
#include "vqcomp.h"

// The plain form of a line scan is sscanf with "%19s%llx%x %u%c" and the name parser. It takes
// hundreds of nanoseconds a line, and all of its corners (signs, prefixes, tabs, numbers that run
// over, fields that run into each other) are legal. Here a line is taken only if it ends within 64
// bytes and consists of fields that are separated by blanks: a name of the table, an address of at
// most 16 hexadecimal digits, an agent of at most 8 and possibly a count of at most 8 decimal ones.
// Whatever follows behind a blank is ignored, as in the plain form, which takes all other lines.
namespace line_scan {

// Bytes that must be readable from the start of a line on and before it, whatever they are.
constexpr int readable_behind = 64 + 16;
constexpr int readable_before = 16;

// Bit i tells of byte i: it is a blank, it is a control character (a newline, too).
struct byte_marks {
  std::uint64_t blanks;
  std::uint64_t controls;
};

#if defined(__SSE2__) && !defined(VQPACK_PORTABLE)

inline byte_marks mark_16(const char* from) {
  const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
  const __m128i last_control = _mm_set1_epi8(0x1F);
  const auto bits = [](__m128i marks) { return std::uint64_t(unsigned(_mm_movemask_epi8(marks))); };
  return {bits(_mm_cmpeq_epi8(bytes, _mm_set1_epi8(' '))),
          bits(_mm_cmpeq_epi8(_mm_max_epu8(bytes, last_control), last_control))};
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
    marks.controls |= zero_bytes(word & 0xE0E0E0E0E0E0E0E0) << 8 * half;
  }
  return marks;
}

#endif

inline byte_marks mark_32(const char* from) {
  const byte_marks first = mark_16(from), second = mark_16(from + 16);
  return {first.blanks | second.blanks << 16, first.controls | second.controls << 16};
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
#if defined(__SSE2__) && !defined(VQPACK_PORTABLE)

inline bool scan_hex(const char* from, const char* end, std::uint64_t& value) {
  static constexpr auto last_bytes = [] {
    std::array<unsigned char, 32> bytes{};
    for (unsigned i = 16; i < bytes.size(); ++i) bytes[i] = 0xFF;
    return bytes;
  }();
  const auto load = [](const void* at) { return _mm_loadu_si128(static_cast<const __m128i*>(at)); };
  const auto up_to = [](__m128i bytes, char last) {
    return _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(last)), bytes);
  };
  const __m128i number = load(last_bytes.data() + (end - from));
  const __m128i text = load(end - 16);
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
  if (length > 8) return false;
  std::uint64_t digits = load_le<8>(reinterpret_cast<const unsigned char*>(end - 8));
  digits = (digits ^ 0x3030303030303030) & ~std::uint64_t{0} << (64 - 8 * length);
  if (((digits + 0x7676767676767676) | digits) & 0x8080808080808080) return false;
  digits = (digits * 10 + (digits >> 8)) & 0x00FF00FF00FF00FF;
  digits = (digits * 100 + (digits >> 16)) & 0x0000FFFF0000FFFF;
  count = unsigned(digits * 10000 + (digits >> 32));
  return true;
}

// The names of the table by a hash of their characters, of which no two share a place.
class name_table {
 public:
  static constexpr unsigned longest = 16;

  constexpr name_table() {
    velk_trans_class trans = 0;
    for (const char* const text : VQcomp::FSB_transactions) {
      place taken{0, 0, trans++};
      for (int i = 0; text[i]; ++i)
        (i < 8 ? taken.low : taken.high) |= std::uint64_t(text[i]) << i % 8 * 8;
      place& free = places_[hash(taken.low, taken.high)];
      if (free.trans != nothing) throw "two names share a place: choose another factor";
      free = taken;
    }
  }

  // The code of a name of 1 to 16 characters, behind which 16 more can be read; false if it has
  // none.
  bool find(const char* name, unsigned length, velk_trans_class& trans) const {
    const auto* const bytes = reinterpret_cast<const unsigned char*>(name);
    const std::uint64_t low = load_le<8>(bytes) & first_bytes[std::min(length, 8u)];
    const std::uint64_t high = load_le<8>(bytes + 8) & first_bytes[std::max(length, 8u) - 8];
    const place& found = places_[hash(low, high)];
    trans = found.trans;
    return found.low == low && found.high == high;
  }

 private:
  static constexpr velk_trans_class nothing = 0xFF;

  struct place {
    std::uint64_t low = 0;  // the first eight characters, the very first lowest
    std::uint64_t high = 0;
    velk_trans_class trans = nothing;
  };

  static constexpr unsigned hash(std::uint64_t low, std::uint64_t high) {
    return unsigned((low + high) * 0x3E3F7768C1894BA5 >> 56);
  }
  static constexpr std::uint64_t first_bytes[] = {0,
                                                  0xFF,
                                                  0xFFFF,
                                                  0xFFFFFF,
                                                  0xFFFFFFFF,
                                                  0xFFFFFFFFFF,
                                                  0xFFFFFFFFFFFF,
                                                  0xFFFFFFFFFFFFFF,
                                                  0xFFFFFFFFFFFFFFFF};

  std::array<place, 256> places_{};
};

inline constexpr name_table names;

// Takes the line at `line` if it is of the usual shape, and returns its length, newline included;
// returns 0 if it is not.
inline unsigned scan_usual_line(const char* line, VQtransaction& t) {
  byte_marks marks = mark_32(line);
  if (marks.controls == 0) {
    const byte_marks more = mark_32(line + 32);
    marks = {marks.blanks | more.blanks << 32, more.controls << 32};
    if (marks.controls == 0) return 0;
  }
  const auto line_end = unsigned(std::countr_zero(marks.controls));
  if (line[line_end] != '\n') return 0;

  // Where fields begin and end: bits of `edges` in turn.
  const std::uint64_t text = ~marks.blanks & ((std::uint64_t{1} << line_end) - 1);
  std::uint64_t edges = text ^ text << 1;
  const auto next_edge = [&edges] {
    const auto edge = unsigned(std::countr_zero(edges));
    edges &= edges - 1;
    return edge;
  };
  const unsigned name = next_edge(), name_end = next_edge();
  const unsigned addr = next_edge(), addr_end = next_edge();
  const unsigned agent = next_edge();
  if (edges == 0) return 0;
  const unsigned agent_end = next_edge();

  std::uint64_t addr_value;
  if (name_end - name > name_table::longest || addr_end - addr > 16 ||
      !names.find(line + name, name_end - name, t.trans) ||
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
// `end`. Moves `at` behind them and returns how many they are.
inline std::size_t scan_usual_lines(const char*& at, const char* end, VQtransaction* to,
                                    std::size_t size) {
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
