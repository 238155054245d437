// Transactions to text lines.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "bytes.h"
#include "processor.h"
#include "vqtypes.h"

#ifdef VQPACK_X86
#include <emmintrin.h>
#endif

namespace vqpack::detail {

// The plain form is fprintf with "%10s %08llX %x\n", or with " %u" before the newline for counts.
// Here the names are laid out once, and the digits of an address are made side by side.
// The next line's lengths are unpredictable, so what is usual takes no branch: every part is
// written at its full width, and the position moves by what it has.
class line_format {
 public:
  line_format(const char* const* names, int name_count, bool with_counts)
      : with_counts_(with_counts) {
    for (int i = 0; i < name_count; ++i) add_name(names[i]);
    for (unsigned agent = 0; agent < agents_.size(); ++agent) {
      [[maybe_unused]] char* const end = put_long_agent(agents_[agent].data(), agent);
      assert(end - agents_[agent].data() == agent_bytes(agent));
    }
  }

  // The most bytes that put() touches.
  std::size_t max_line() const { return max_name_ + rest_of_line; }

  // Writes the line at `to` and returns the position after it. The code must have a name.
  char* put(char* to, const VQtransaction& t) const {
    const name_field& name = names_[t.trans];
    std::memcpy(to, name.start, sizeof name.start);
    if (name.size > sizeof name.start) [[unlikely]]
      long_names_[t.trans].copy(to, name.size);
    to = put_address(to + name.size, static_cast<std::uint64_t>(t.addr));
    const auto agent = unsigned(t.agent);
    if (agent < agents_.size()) {
      std::memcpy(to, agents_[agent].data(), sizeof agents_[agent]);
      to += agent_bytes(agent);
    } else {
      to = put_long_agent(to, agent);
    }
    if (!with_counts_) return to;
    to = std::to_chars(to, to + max_number_digits, t.count).ptr;
    *to++ = '\n';
    return to;
  }

 private:
  static constexpr std::size_t name_width = 10 + 1;  // with the blank after it
  static constexpr int min_addr_digits = 8;
  static constexpr int max_addr_digits = 16;
  static constexpr int max_number_digits = 10;
  static constexpr std::size_t rest_of_line =
      max_addr_digits + 1 + max_number_digits + 1 + max_number_digits + 1;

  struct name_field {
    char start[16] = {};  // all of it, but for few names
    std::size_t size;
  };
  // A blank, the digits, and what follows them, a newline or a blank.
  using agent_field = std::array<char, 4>;

  void add_name(const char* name) {
    std::string& text = long_names_.emplace_back(std::string(name) + ' ');
    if (text.size() < name_width) text.insert(0, name_width - text.size(), ' ');
    names_.push_back({.size = text.size()});
    text.copy(names_.back().start, sizeof names_.back().start);
    max_name_ = std::max(max_name_, text.size());
  }

  static constexpr int agent_bytes(unsigned agent) { return 3 + (agent > 0xF); }

  char* put_long_agent(char* to, unsigned agent) const {
    *to++ = ' ';
    to = std::to_chars(to, to + max_number_digits, agent, 16).ptr;
    *to++ = with_counts_ ? ' ' : '\n';
    return to;
  }

#ifdef VQPACK_X86

  // Writes the sixteen hexadecimal digits of `value`.
  static void put_digits(char* to, std::uint64_t value) {
    const __m128i low_bits = _mm_set1_epi8(0xF);
    const __m128i bytes = _mm_cvtsi64_si128(static_cast<long long>(__builtin_bswap64(value)));
    const __m128i digits = _mm_unpacklo_epi8(_mm_and_si128(_mm_srli_epi16(bytes, 4), low_bits),
                                             _mm_and_si128(bytes, low_bits));
    const __m128i letters =
        _mm_and_si128(_mm_cmpgt_epi8(digits, _mm_set1_epi8(9)), _mm_set1_epi8('A' - '9' - 1));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                     _mm_add_epi8(_mm_add_epi8(digits, letters), _mm_set1_epi8('0')));
  }

#else

  // The characters of the eight hexadecimal digits of `value`, the first one lowest.
  static std::uint64_t hex_digits(std::uint32_t value) {
    constexpr std::uint64_t each = 0x0101010101010101;
    std::uint64_t digits = value;
    digits = (digits << 32 | digits >> 16) & 0x0000FFFF0000FFFF;
    digits = (digits << 16 | digits >> 8) & 0x00FF00FF00FF00FF;
    digits = (digits << 8 | digits >> 4) & 0x0F0F0F0F0F0F0F0F;
    const std::uint64_t letters = (digits + 6 * each) >> 4 & each;
    return digits + '0' * each + ('A' - '9' - 1) * letters;
  }

  static void put_digits(char* to, std::uint64_t value) {
    auto* const bytes = reinterpret_cast<unsigned char*>(to);
    store_le<8>(bytes, hex_digits(std::uint32_t(value >> 32)));
    store_le<8>(bytes + 8, hex_digits(std::uint32_t(value)));
  }

#endif

  static char* put_address(char* to, std::uint64_t addr) {
    constexpr std::uint64_t fewest = std::uint64_t{1} << 4 * (min_addr_digits - 1);
    const int digits = (int(std::bit_width(addr | fewest)) + 3) / 4;
    put_digits(to, addr << 4 * (max_addr_digits - digits));
    return to + digits;
  }

  bool with_counts_;
  std::vector<name_field> names_;        // by code
  std::vector<std::string> long_names_;  // the same, whole
  std::size_t max_name_ = sizeof(name_field::start);
  std::array<agent_field, 256> agents_;
};

}  // namespace vqpack::detail
