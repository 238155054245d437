// Records of transactions whose contexts are known, four side by side.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>

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
  const auto delta = is_in_lines ? unsigned(lines) & delta_mask : long_delta;
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
    low_prev_[i] = int(prev & (line - 1));
    lines_[i] = lines_in_16_units[trans];
  }

  int* positions() { return positions_.data(); }

  // Makes the first `size` records. A single one is left to the plain form: it is ready before a
  // vector could be loaded of what set() has just stored.
  [[gnu::always_inline]] inline void make(std::size_t size) {
    if (size == 1)
      heads_[0] = positions_[0] == 0 && from_line_start(units_[0], low_prev_[0], lines_[0]) == line
                      ? next_line
                      : 0;
    else
      for (std::size_t i = 0; i < size; i += 4) make_four(i);
  }

  // Whether all that record `i` says is that the front context moves to its next line. For this and
  // put(), the records have been made.
  bool is_next_line(std::size_t i) const { return (heads_[i] & 0xFF) == next_line; }

  // Writes record `i`, whose arguments for set() were `trans` and `unit_addr`, at `to`. Returns the
  // position after it; up to 4 bytes beyond that may be overwritten.
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
  static constexpr int size_shift = 24;             // of the number of bytes in a word
  static constexpr unsigned next_line = 1;          // head byte: context 0, a delta of one line
  static constexpr long long most_units = 1 << 24;  // more than two bytes hold

  // Distances are counted in sixteenths of a line, so that lines of all lengths, 16 address units
  // at most, are treated alike.
  static constexpr int line_bits = 4;
  static constexpr int line = 1 << line_bits;
  static constexpr auto lines_in_16_units = [] {
    std::array<unsigned char, 256> lines{};
    for (std::size_t trans = 0; trans < lines.size(); ++trans)
      lines[trans] = static_cast<unsigned char>(16 >> line_shift(velk_trans_class(trans)));
    return lines;
  }();

  // How far an address is, after it moved by `units`, from the start of the line before.
  template <class Number>
  static Number from_line_start(const Number& units, const Number& low_prev, const Number& lines) {
    return (low_prev * lines & (line - 1)) + units * lines;
  }

  using four [[gnu::vector_size(16), gnu::may_alias]] = int;
  template <class T>
  using array = std::array<T, max_size>;

  static const four& load(const array<int>& all, std::size_t i) {
    return reinterpret_cast<const four&>(all[i]);
  }
  static void store(array<unsigned>& all, std::size_t i, const four& words) {
    reinterpret_cast<four&>(all[i]) = words;
  }

  // Whether a signed number has at most so many bits.
  template <int Bits>
  static four is_signed(const four& number) {
    return number << (32 - Bits) >> (32 - Bits) == number;
  }

  // The bytes of a number of two groups at most, the first one lowest; of one, the second byte
  // means nothing.
  static four stop_bit_code(const four& number, const four& is_one_byte) {
    return (number + (number & upper_group_mask)) | stop_bit << 8 | (is_one_byte & stop_bit);
  }

  // A comparison gives a mask, all bits 1 where it holds: as a number, -1.
  [[gnu::always_inline]] inline void make_four(std::size_t i) {
    const four units = load(units_, i), lines = load(lines_, i), position = load(positions_, i);
    // A delta of -7 to 7 whole lines; 8 more is 1 to 15.
    const four moved = from_line_start(units, load(low_prev_, i), lines) + long_delta * line;
    const four in_lines = ((moved & ~(delta_mask * line)) == 0) & (moved >= line);
    const four delta_in_head = (moved >> line_bits & in_lines) ^ long_delta;
    const four one_group = is_signed<stop_bit_group>(units);
    const four delta = stop_bit_code(units & (group_mask | upper_group_mask), one_group) |
                       (2 + one_group) << size_shift;

    const four has_number = position > max_short_position;
    const four number = (position - max_short_position) & has_number;
    const four two_bytes = number > group_mask;
    const four head = (has_number & numbered_context) | (position & 3) << position_shift |
                      delta_in_head | stop_bit_code(number, ~two_bytes) << 8 |
                      (1 - has_number - two_bytes) << size_shift;

    const four is_short =
        is_signed<2 * stop_bit_group>(units) & (number >> 2 * stop_bit_group == 0);
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
