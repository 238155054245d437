// CRC-32 with the polynomial 0x04C11DB7, most significant bit first, initial value 0 and no
// complement: qubix(5), "Checksums".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// table[i] is what the eight bits of i, shifted out at the top, leave in the register.
inline constexpr auto checksum_table = [] {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t entry = i << 24;
    for (int bit = 0; bit < 8; ++bit) entry = entry << 1 ^ (entry >> 31 ? 0x04C11DB7u : 0u);
    table[i] = entry;
  }
  return table;
}();

// The register after folding is the remainder of the folded bytes, read as one polynomial,
// divided by x^32 + 0x04C11DB7. A PRUV header stores that remainder as it is. A transaction
// stream stores the remainder of its bytes followed by four zero bytes (`close`), so that
// folding the stored bytes, most significant first, brings an intact stream back to 0.
class checksum {
 public:
  void fold(unsigned char byte) { value_ = (value_ << 8 | byte) ^ checksum_table[value_ >> 24]; }

  void fold(const unsigned char* bytes, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) fold(bytes[i]);
  }

  // Folds the low `Bytes` bytes (1 to 8) of `value`, least significant first.
  template <int Bytes>
  void fold_le(unsigned long long value) {
    for (int i = 0; i < Bytes; ++i) fold(static_cast<unsigned char>(value >> (8 * i)));
  }

  void close() { fold_le<4>(0); }

  std::uint32_t value() const { return value_; }

 private:
  std::uint32_t value_ = 0;
};
