// Records of transactions whose contexts are known, four side by side.
#pragma once

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>

#include "bytes.h"
#include "record_format.h"
#include "stop_bit.h"
#include "vqtypes.h"

namespace vqpack::detail {

// The plain form of a record: head byte, context number and delta, without repeats. The context was
// found at `position`, and its address moves from `prev` to `unit_addr`, both in address units.
// Returns the position after the record. The delta counts lines where they are few, and where it
// ends at the start of one.
inline unsigned char* put_known_context(unsigned char* to, velk_trans_class trans, int position,
                                        long long prev, long long unit_addr) {
  const int shift = line_shift(trans);
  const long long lines = (unit_addr >> shift) - (prev >> shift);
  const bool is_in_lines = unit_addr >> shift << shift == unit_addr && lines >= -max_short_delta &&
                           lines <= max_short_delta;
  const int place = std::min(position, max_short_position + 1);
  const auto delta = is_in_lines ? unsigned(lines) & 0xF : long_delta;
  to = store_le<1>(to, unsigned(place) << position_shift | delta);
  if (position > max_short_position) to = put_stop_bit(to, unsigned(position - max_short_position));
  return is_in_lines ? to : put_signed_stop_bit(to, unit_addr - prev);
}

// The records of a batch. Which parts a record has is unpredictable, and a wrong guess costs more
// than making all of them. So two words are made of each, one of its head byte and context number,
// one of its delta, with the number of their bytes on top, and both are stored at their full width
// in any case. That takes no branch, and what makes the words works on four records at once, in
// vectors as most processors have them; for others the compiler makes plain code. Context numbers
// and deltas of more than two bytes, which are rare, are left to the plain form.
class known_records {
 public:
  static constexpr std::size_t max_size = 64;

  // Contexts are found at less than `window` address units from their addresses before.
  explicit known_records(long long window) : has_wide_window_(window > most_units) {}

  // Takes note of record `i`, whose position is to be stored in positions()[i]. The other arguments
  // are those of put_known_context().
  void set(std::size_t i, velk_trans_class trans, long long prev, long long unit_addr) {
    long long units = unit_addr - prev;
    if (has_wide_window_) [[unlikely]]
      units = std::clamp(units, -most_units, most_units);
    units_[i] = int(units);
    prev_[i] = prev;
    low_prev_[i] = int(prev & 0xF);
    lines_[i] = lines_in_16_units[trans];
  }

  int* positions() { return positions_.data(); }

  // Makes the first `size` records. A single one is left to the plain form: it is ready before a
  // vector could be loaded of what set() has just stored.
  [[gnu::always_inline]] inline void make(std::size_t size) {
    if (size == 1)
      heads_[0] =
          positions_[0] == 0 && (low_prev_[0] * lines_[0] & 0xF) + units_[0] * lines_[0] == 16;
    else
      for (std::size_t i = 0; i < size; i += 4) make_four(i);
  }

  // Whether all that record `i` says is that the front context moves to its next line.
  bool is_next_line(std::size_t i) const { return (heads_[i] & 0xFF) == 1; }

  // Writes record `i` at `to`, and returns the position after it, beyond which up to 4 bytes may be
  // overwritten.
  unsigned char* put(unsigned char* to, std::size_t i, velk_trans_class trans,
                     long long unit_addr) const {
    if (heads_[i] >> size_shift == 0) [[unlikely]]
      return put_known_context(to, trans, positions_[i], prev_[i], unit_addr);
    store_le<4>(to, heads_[i]);
    to += heads_[i] >> size_shift;
    store_le<4>(to, deltas_[i]);
    return to + (deltas_[i] >> size_shift);
  }

 private:
  static constexpr int size_shift = 24;
  static constexpr long long most_units = 1 << 24;  // more than two bytes hold
  static constexpr auto lines_in_16_units = [] {
    std::array<unsigned char, 256> lines{};
    for (std::size_t trans = 0; trans < lines.size(); ++trans)
      lines[trans] = static_cast<unsigned char>(16 >> line_shift(velk_trans_class(trans)));
    return lines;
  }();

  using four [[gnu::vector_size(16), gnu::may_alias]] = int;
  template <class T>
  using array = std::array<T, max_size>;

  static const four& load(const array<int>& all, std::size_t i) {
    return reinterpret_cast<const four&>(all[i]);
  }
  static void store(array<unsigned>& all, std::size_t i, const four& words) {
    reinterpret_cast<four&>(all[i]) = words;
  }

  // The bytes of a number below 2^14, the first one lowest; of one byte, the second means nothing.
  static four stop_bit_code(const four& number, const four& is_one_byte) {
    return (number + (number & 0x3F80)) | stop_bit << 8 | (is_one_byte & stop_bit);
  }

  // A comparison gives a mask, all bits 1 where it holds: as a number, -1.
  [[gnu::always_inline]] inline void make_four(std::size_t i) {
    const four units = load(units_, i), lines = load(lines_, i), position = load(positions_, i);
    // In sixteenths of a line, 8 lines more than from the start of the line before.
    const four moved = (load(low_prev_, i) * lines & 0xF) + units * lines + (8 << 4);
    const four in_lines = ((moved & ~0xF0) == 0) & (moved > 0xF);
    const four delta_in_head = (moved >> 4 & in_lines) ^ long_delta;
    const four one_group = (units << 25 >> 25) == units;
    const four delta = stop_bit_code(units & 0x3FFF, one_group) | (2 + one_group) << size_shift;

    const four has_number = position > max_short_position;
    const four number = (position - max_short_position) & has_number;
    const four two_bytes = number > 0x7F;
    const four head = (has_number & numbered_context) | (position & 3) << position_shift |
                      delta_in_head | stop_bit_code(number, ~two_bytes) << 8 |
                      (1 - has_number - two_bytes) << size_shift;

    const four is_short = (((units << 18 >> 18) ^ units) | number >> 14) == 0;
    store(heads_, i, head & is_short);
    store(deltas_, i, delta & ~in_lines);
  }

  bool has_wide_window_;
  // What lies beyond the last record of a batch is computed with, and then not used.
  alignas(16) array<int> positions_{};
  alignas(16) array<int> units_{};        // of the delta
  alignas(16) array<int> low_prev_{};     // the lower bits of `prev_`
  alignas(16) array<int> lines_{};        // that make 16 units
  array<long long> prev_{};               // address before
  alignas(16) array<unsigned> heads_{};   // of 0 bytes where it is left to the plain form
  alignas(16) array<unsigned> deltas_{};  // 0 where the head has it
};

}  // namespace vqpack::detail
