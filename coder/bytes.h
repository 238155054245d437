// Little-endian integers in byte arrays, at any alignment and on any machine.
#pragma once

// Reads `Bytes` bytes (1 to 8) at `from`, least significant first.
template <int Bytes>
constexpr unsigned long long load_le(const unsigned char* from) {
  unsigned long long value = 0;
  for (int i = Bytes; i-- > 0;) value = value << 8 | from[i];
  return value;
}

// Writes the low `Bytes` bytes (1 to 8) of `value` at `to`, least significant first.
// Returns the position just behind them.
template <int Bytes>
constexpr unsigned char* store_le(unsigned char* to, unsigned long long value) {
  for (int i = 0; i < Bytes; ++i) *to++ = static_cast<unsigned char>(value >> (8 * i));
  return to;
}
