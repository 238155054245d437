// Fields of text to be written. Each function returns the position after what it wrote.
#pragma once

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <string_view>

namespace vqtrace {

inline char* put_text(char* to, std::string_view text) {
  return std::copy(text.begin(), text.end(), to);
}

inline char* put_decimal(char* to, std::uint64_t value) {
  return std::to_chars(to, to + 20, value).ptr;
}

// With at least so many digits, 1 to 16.
inline char* put_hexadecimal(char* to, std::uint64_t value, int digits) {
  const int needed = (int(std::bit_width(value | 1)) + 3) / 4;
  to = std::fill_n(to, std::max(digits - needed, 0), '0');
  return std::to_chars(to, to + 16, value, 16).ptr;
}

inline char* put_address(char* to, std::uint64_t address) {
  return put_hexadecimal(put_text(to, "0x"), address, 1);
}

}  // namespace vqtrace
