// Transactions to text lines.
#pragma once

#include <algorithm>
#include <bit>
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
class line_format {
 public:
  line_format(const char* const* names, int name_count, bool with_counts)
      : fields_(std::size_t(name_count)), with_counts_(with_counts) {
    for (std::size_t i = 0; i < fields_.size(); ++i) {
      std::string& text = fields_[i].whole;
      text = std::string(names[i]) + ' ';
      if (text.size() < name_width) text.insert(0, name_width - text.size(), ' ');
      text.copy(fields_[i].start, name_copy);
      max_name_ = std::max(max_name_, text.size());
    }
  }

  // The most bytes that put() touches.
  std::size_t longest_line() const { return max_name_ + rest_of_line; }

  // Writes the line at `to` and returns the position after it. The code must have a name.
  char* put(char* to, const VQtransaction& t) const {
    const name_field& name = fields_[t.trans];
    const std::size_t size = name.whole.size();
    std::memcpy(to, name.start, name_copy);
    if (size > name_copy) name.whole.copy(to, size);
    to = put_address(to + size, static_cast<std::uint64_t>(t.addr));
    *to++ = ' ';
    to = put_agent(to, unsigned(t.agent));
    if (with_counts_) {
      *to++ = ' ';
      to = std::to_chars(to, to + max_number_digits, t.count).ptr;
    }
    *to++ = '\n';
    return to;
  }

 private:
  static constexpr std::size_t name_width = 10 + 1;  // with the blank after it
  static constexpr std::size_t name_copy = 16;       // nearly all names in one go
  static constexpr int min_addr_digits = 8;
  static constexpr int max_addr_digits = 16;
  static constexpr int max_number_digits = 10;
  static constexpr std::size_t rest_of_line =
      max_addr_digits + 1 + max_number_digits + 1 + max_number_digits + 1;

  struct name_field {
    char start[name_copy] = {};  // of `whole`, whose size may be less or more
    std::string whole;
  };

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

  // Always makes sixteen digits: the number of digits is unpredictable.
  static char* put_address(char* to, std::uint64_t addr) {
    const int digits = std::max(min_addr_digits, (int(std::bit_width(addr)) + 3) / 4);
    put_digits(to, addr << 4 * (max_addr_digits - digits));
    return to + digits;
  }

  static char* put_agent(char* to, unsigned agent) {
    if (agent < 10) {
      *to++ = static_cast<char>('0' + agent);
      return to;
    }
    return std::to_chars(to, to + max_number_digits, agent, 16).ptr;
  }

  std::vector<name_field> fields_;  // by code
  bool with_counts_;
  std::size_t max_name_ = name_copy;
};

}  // namespace vqpack::detail
