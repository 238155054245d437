// CRC-32 with the polynomial 0x04C11DB7, most significant bit first, initial value 0 and no
// complement: qubix(5), "Checksums".
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "processor.h"
#include "vqtypes.h"

#ifdef VQPACK_X86
#include <immintrin.h>
#endif

namespace vqpack::detail {

// The remainder of `remainder` followed by `bits` zero bits.
constexpr std::uint32_t checksum_shift(std::uint32_t remainder, int bits) {
  for (; bits > 0; --bits) remainder = remainder << 1 ^ (remainder >> 31 ? 0x04C11DB7u : 0u);
  return remainder;
}

// checksum_tables[k][b] is the remainder of the byte b followed by k zero bytes. The step by bytes
// needs k = 4 alone: what the byte at the top of the register leaves when the next one comes in.
inline constexpr int max_folded = 15;  // bytes, of a transaction
inline constexpr auto checksum_tables = [] {
  std::array<std::array<std::uint32_t, 256>, max_folded + 4> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t remainder = byte;
    for (auto& table : tables) {
      table[byte] = remainder;
      remainder = checksum_shift(remainder, 8);
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
  template <bool WideAgents, bool Counted>
  void fold_all(const VQtransaction* transactions, std::size_t size) {
#ifdef VQPACK_X86
    if (__builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx2"))
      return fold_by_wide_products<WideAgents, Counted>(transactions, size);
    if (__builtin_cpu_supports("pclmul"))
      return fold_by_products<WideAgents, Counted>(transactions, size);
#endif
    fold_by_tables<WideAgents, Counted>(transactions, size);
  }

  // Bytes of a transaction.
  template <bool WideAgents, bool Counted>
  static constexpr int width = 1 + (WideAgents ? 2 : 1) + 8 + (Counted ? 4 : 0);

  // The remainder of a sum is the sum of the remainders: each byte of the register and of the
  // transaction contributes by its distance to the end alone, so that they need not wait for each
  // other. The last four bytes are their own remainder. 5 times as fast as byte after byte.
  template <bool WideAgents, bool Counted>
  void fold_by_tables(const VQtransaction* transactions, std::size_t size) {
    constexpr std::size_t last = width<WideAgents, Counted> - 1;
    const auto& tables = checksum_tables;
    std::uint32_t value = value_;
    for (std::size_t i = 0; i < size; ++i) {
      const VQtransaction& t = transactions[i];
      const auto agent = std::uint32_t(t.agent);
      const auto addr = static_cast<std::uint64_t>(t.addr);
      std::uint32_t sum = reversed(Counted ? t.count : std::uint32_t(addr >> 32));
      for (std::size_t byte = 0; byte < 4; ++byte)
        sum ^= tables[last + 1 + byte][value >> 8 * byte & 0xFF];
      sum ^= tables[last][t.trans];
      sum ^= tables[last - 1][agent & 0xFF];
      if (WideAgents) sum ^= tables[last - 2][agent >> 8 & 0xFF];
      constexpr std::size_t first = Counted ? 11 : 7;  // bytes after the first of the address
      for (std::size_t byte = 0; first - byte >= 4; ++byte)
        sum ^= tables[first - byte][addr >> 8 * byte & 0xFF];
      value = sum;
    }
    value_ = value;
  }

#ifdef VQPACK_X86

  // Where the processor multiplies polynomials, the register may be 128 bits wide and the division
  // wait for the end. To move what has been folded up by n bits, its lower half is multiplied by
  // the remainder of x^n and its upper one by that of x^(n + 64). Two transactions in a turn, as
  // each move needs the one before. 3 times as fast as by tables.
  template <bool WideAgents, bool Counted>
  [[gnu::target("pclmul")]] void fold_by_products(const VQtransaction* transactions,
                                                  std::size_t size) {
    constexpr int bits = 8 * width<WideAgents, Counted>;
    const auto bytes_at = [transactions](std::size_t i) {
      return bytes_of<WideAgents, Counted>(transactions[i]);
    };
    __m128i sum = _mm_cvtsi32_si128(int(value_));
    std::size_t i = size % 2;
    if (i == 1) sum = _mm_xor_si128(moved_up<bits>(sum), bytes_at(0));
    for (; i < size; i += 2)
      sum = _mm_xor_si128(moved_up<2 * bits>(sum),
                          _mm_xor_si128(moved_up<bits>(bytes_at(i)), bytes_at(i + 1)));
    divide(sum);
  }

  // The same where the processor makes two such products at once: the sums over the transactions in
  // even and in odd places. Takes 40 % less time.
  template <bool WideAgents, bool Counted>
  [[gnu::target("vpclmulqdq,pclmul,avx2")]] void fold_by_wide_products(
      const VQtransaction* transactions, std::size_t size) {
    constexpr int bits = 8 * width<WideAgents, Counted>;
    std::size_t i = size % 4;
    fold_by_products<WideAgents, Counted>(transactions, i);
    __m256i sums = _mm256_setr_m128i(_mm_setzero_si128(), _mm_cvtsi32_si128(int(value_)));
    for (; i < size; i += 4) {
      const __m256i first = bytes_of_two<WideAgents, Counted>(&transactions[i]),
                    second = bytes_of_two<WideAgents, Counted>(&transactions[i + 2]);
      sums = _mm256_xor_si256(two_moved_up<4 * bits>(sums),
                              _mm256_xor_si256(two_moved_up<2 * bits>(first), second));
    }
    divide(_mm_xor_si128(moved_up<bits>(_mm256_castsi256_si128(sums)),
                         _mm256_extracti128_si256(sums, 1)));
  }

  // Makes the remainder of `sum` the register.
  void divide(__m128i sum) {
    const auto low = std::uint64_t(_mm_cvtsi128_si64(sum));
    const auto high = std::uint64_t(_mm_cvtsi128_si64(_mm_unpackhi_epi64(sum, sum)));
    value_ = 0;
    for (std::size_t byte = 0; byte < 8; ++byte)
      value_ ^= checksum_tables[byte][low >> 8 * byte & 0xFF] ^
                checksum_tables[8 + byte][high >> 8 * byte & 0xFF];
  }

  // A polynomial of less than 96 bits with the same remainder as `sum` followed by `Bits` zero
  // bits.
  template <int Bits>
  [[gnu::target("pclmul")]] static __m128i moved_up(__m128i sum) {
    constexpr std::uint32_t low = checksum_shift(1, Bits), high = checksum_shift(1, Bits + 64);
    const __m128i powers = _mm_set_epi64x(high, low);
    return _mm_xor_si128(_mm_clmulepi64_si128(sum, powers, 0x00),
                         _mm_clmulepi64_si128(sum, powers, 0x11));
  }

  template <int Bits>
  [[gnu::target("vpclmulqdq,avx2")]] static __m256i two_moved_up(__m256i sums) {
    constexpr std::uint32_t low = checksum_shift(1, Bits), high = checksum_shift(1, Bits + 64);
    const __m256i powers = _mm256_setr_epi64x(low, high, low, high);
    return _mm256_xor_si256(_mm256_clmulepi64_epi128(sums, powers, 0x00),
                            _mm256_clmulepi64_epi128(sums, powers, 0x11));
  }

  // The bytes of a transaction, the first one most significant.
  template <bool WideAgents, bool Counted>
  static __m128i bytes_of(const VQtransaction& t) {
    const auto agent = static_cast<std::uint16_t>(t.agent);
    const std::uint64_t addr = __builtin_bswap64(static_cast<std::uint64_t>(t.addr));
    const std::uint64_t front = WideAgents ? std::uint64_t{t.trans} << 16 | __builtin_bswap16(agent)
                                           : std::uint64_t{t.trans} << 8 | (agent & 0xFFu);
    const auto word = [](std::uint64_t bits) { return static_cast<long long>(bits); };
    return Counted ? _mm_set_epi64x(word(front << 32 | addr >> 32),
                                    word(addr << 32 | reversed(t.count)))
                   : _mm_set_epi64x(word(front), word(addr));
  }

  // The same of two, t[0] in the lower half.
  template <bool WideAgents, bool Counted>
  [[gnu::target("avx2")]] static __m256i bytes_of_two(const VQtransaction* t) {
    static_assert(offsetof(VQtransaction, addr) == 0 && sizeof *t == 24);
    // Where the bytes come from, the least significant first; -1 is a zero.
    using places = std::array<signed char, 16>;
    alignas(16) static constexpr auto from = [] {
      struct {
        places addr_agent_count, trans;
      } made;
      made.addr_agent_count.fill(-1);
      made.trans.fill(-1);
      std::size_t i = 0;
      const auto take = [&](int first, int size) {
        while (size-- > 0) made.addr_agent_count[i++] = static_cast<signed char>(first + size);
      };
      if (Counted) take(offsetof(VQtransaction, count), 4);
      take(offsetof(VQtransaction, addr), 8);
      take(offsetof(VQtransaction, agent), WideAgents ? 2 : 1);
      made.trans[i] = offsetof(VQtransaction, trans) - offsetof(VQtransaction, agent);
      return made;
    }();
    return _mm256_or_si256(two_shuffled(&t[0], &t[1], from.addr_agent_count),
                           two_shuffled(&t[0].agent, &t[1].agent, from.trans));
  }

  // Those of 16 bytes at `low` and of 16 at `high` that are at the 16 places at `from`.
  [[gnu::target("avx2")]] static __m256i two_shuffled(const void* low, const void* high,
                                                      const std::array<signed char, 16>& from) {
    const auto at = [](const void* bytes) { return static_cast<const __m128i*>(bytes); };
    return _mm256_shuffle_epi8(_mm256_loadu2_m128i(at(high), at(low)),
                               _mm256_broadcastsi128_si256(_mm_load_si128(at(&from))));
  }

#endif

  static std::uint32_t reversed(std::uint32_t word) {
    return word << 24 | (word & 0xFF00) << 8 | (word >> 8 & 0xFF00) | word >> 24;
  }

  std::uint32_t value_ = 0;
};

}  // namespace vqpack::detail
