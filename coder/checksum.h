// CRC-32 with the polynomial 0x04C11DB7, most significant bit first, initial value 0 and no
// complement: qubix(5), "Checksums".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "vqcomp.h"

// checksum_tables[k][b] is the remainder of the byte b with k bytes behind it. The step by bytes
// needs k = 4 alone: what the byte at the top of the register leaves when the next one comes in.
inline constexpr int longest_folded = 15;  // bytes, of a transaction
inline constexpr auto checksum_tables = [] {
  std::array<std::array<std::uint32_t, 256>, longest_folded + 4> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t remainder = byte;
    for (auto& table : tables) {
      table[byte] = remainder;
      for (int bit = 0; bit < 8; ++bit)
        remainder = remainder << 1 ^ (remainder >> 31 ? 0x04C11DB7u : 0u);
    }
  }
  return tables;
}();

// The register after folding is the remainder of the folded bytes, read as one polynomial,
// divided by x^32 + 0x04C11DB7. A PRUV header stores that remainder as it is. A transaction
// stream stores the remainder of its bytes followed by four zero bytes (`close`), so that
// folding the stored bytes, most significant first, brings an intact stream back to 0.
class checksum {
 public:
  void fold(unsigned char byte) {
    value_ = (value_ << 8 | byte) ^ checksum_tables[4][value_ >> 24];
  }

  void fold(const unsigned char* bytes, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) fold(bytes[i]);
  }

  // Folds the low `Bytes` bytes (1 to 8) of `value`, least significant first.
  template <int Bytes>
  void fold_le(unsigned long long value) {
    for (int i = 0; i < Bytes; ++i) fold(static_cast<unsigned char>(value >> (8 * i)));
  }

  // Folds type, agent (16 bits if `wide_agents`), address and, if `counted`, count of each
  // transaction, as fold_le() would one after another.
  void fold(const VQtransaction* transactions, std::size_t size, bool wide_agents, bool counted) {
    if (wide_agents)
      counted ? fold_all<true, true>(transactions, size)
              : fold_all<true, false>(transactions, size);
    else
      counted ? fold_all<false, true>(transactions, size)
              : fold_all<false, false>(transactions, size);
  }

  void close() { fold_le<4>(0); }

  std::uint32_t value() const { return value_; }

 private:
  // The remainder of a sum is the sum of the remainders: each byte of the register and of the
  // transaction contributes by its distance to the end alone, so that they need not wait for each
  // other. The last four bytes are their own remainder. 5 times as fast as byte after byte.
  template <bool WideAgents, bool Counted>
  void fold_all(const VQtransaction* transactions, std::size_t size) {
    constexpr std::size_t bytes = 1 + (WideAgents ? 2 : 1) + 8 + (Counted ? 4 : 0);
    const auto& tables = checksum_tables;
    std::uint32_t value = value_;
    for (std::size_t i = 0; i < size; ++i) {
      const VQtransaction& t = transactions[i];
      const auto agent = std::uint32_t(t.agent);
      const auto addr = static_cast<std::uint64_t>(t.addr);
      std::uint32_t sum = reversed(Counted ? t.count : std::uint32_t(addr >> 32));
      for (std::size_t byte = 0; byte < 4; ++byte)
        sum ^= tables[bytes + byte][value >> 8 * byte & 0xFF];
      sum ^= tables[bytes - 1][t.trans];
      sum ^= tables[bytes - 2][agent & 0xFF];
      if (WideAgents) sum ^= tables[bytes - 3][agent >> 8 & 0xFF];
      constexpr std::size_t first = Counted ? 11 : 7;  // bytes behind the first of the address
      for (std::size_t byte = 0; first - byte >= 4; ++byte)
        sum ^= tables[first - byte][addr >> 8 * byte & 0xFF];
      value = sum;
    }
    value_ = value;
  }

  static std::uint32_t reversed(std::uint32_t word) {
    return word << 24 | (word & 0xFF00) << 8 | (word >> 8 & 0xFF00) | word >> 24;
  }

  std::uint32_t value_ = 0;
};
