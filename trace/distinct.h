// How many different lines a trace touches.
#pragma once

#include <bit>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace vqtrace {

// Counts different numbers of lines: exactly while its table, of at most 32 MiB, has room, then by
// an estimate with a standard error of 0.6 %.
class distinct_lines {
 public:
  void add(std::uint64_t line) {
    if (line == latest_) return;
    latest_ = line;
    if (is_exact()) {
      add_exactly(line);
    } else {
      note(line);
    }
  }

  bool is_exact() const { return ranks_.empty(); }
  std::uint64_t size() const { return is_exact() ? size_ : estimate(); }

 private:
  // Neighbouring lines share an entry: 64 of them, one a bit.
  struct group {
    std::uint64_t number;
    std::uint64_t lines = 0;  // none: the entry is free
  };
  static constexpr std::size_t most_groups = (32 << 20) / sizeof(group);
  static constexpr int part_bits = 15;  // of a hash; the estimate's error is 1.04 / sqrt(2^15)

  static std::uint64_t hash(std::uint64_t number) {
    number = (number ^ number >> 30) * 0xBF58476D1CE4E5B9;
    number = (number ^ number >> 27) * 0x94D049BB133111EB;
    return number ^ number >> 31;
  }

  group& find(std::uint64_t number) {
    for (std::size_t place = hash(number ^ seed_);; ++place) {
      group& found = groups_[place & (groups_.size() - 1)];
      if (found.lines == 0 || found.number == number) return found;
    }
  }

  void add_exactly(std::uint64_t line) {
    group& found = find(line / 64);
    const std::uint64_t bit = std::uint64_t{1} << line % 64;
    if (found.lines & bit) return;
    ++size_;
    const bool is_new = found.lines == 0;
    found = {line / 64, found.lines | bit};
    if (is_new && ++used_ > groups_.size() / 4 * 3) grow();
  }

  void grow() {
    std::vector<group> old(groups_.size() < most_groups ? 2 * groups_.size() : 0);
    old.swap(groups_);
    if (groups_.empty()) return begin_estimate(old);
    for (const group& one : old)
      if (one.lines != 0) find(one.number) = one;
  }

  // From here on, in the way of HyperLogLog: of the lines whose hashes begin with the same bits,
  // the longest run of zeros that follows.
  void begin_estimate(const std::vector<group>& groups) {
    ranks_.resize(std::size_t{1} << part_bits);
    for (const group& one : groups)
      for (std::uint64_t left = one.lines; left != 0; left &= left - 1)
        note(one.number * 64 + std::uint64_t(std::countr_zero(left)));
  }

  void note(std::uint64_t line) {
    const std::uint64_t hashed = hash(line + 1);
    const auto rank = std::uint8_t(std::countl_zero(hashed << part_bits | 1) + 1);
    std::uint8_t& longest = ranks_[hashed >> (64 - part_bits)];
    if (rank > longest) longest = rank;
  }

  std::uint64_t estimate() const {
    const auto parts = double(ranks_.size());
    double sum = 0;
    for (const std::uint8_t rank : ranks_) sum += std::ldexp(1, -rank);
    return std::uint64_t(0.7213 / (1 + 1.079 / parts) * parts * parts / sum);
  }

  std::vector<group> groups_ = std::vector<group>(1 << 10);
  std::size_t used_ = 0;    // of the groups
  std::uint64_t size_ = 0;  // lines in them
  // So that no trace can be made to fill neighbouring places.
  std::uint64_t seed_ = std::random_device()();
  std::uint64_t latest_ = ~std::uint64_t{0};  // not the number of any
  std::vector<std::uint8_t> ranks_;           // empty: exact
};

}  // namespace vqtrace
