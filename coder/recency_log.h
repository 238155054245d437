// Numbers in the order of their latest use, with their positions.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

// Distinct numbers ("ids") in the order of their latest use, newest first.
//
// The plain form is an array in that order, in which a use of the id at position k moves k others
// down. Here no id ever moves: each use takes a new slot in a log, below all slots taken before,
// and the slot of the use before dies. A bitmap tells which slots live, and the position of an id
// is the number of live slots below its own. Counts of the live slots in each word of the bitmap,
// in groups of four words, in sixteen groups, in sixteen times that and so on make that, and the
// way from a position to its slot, a few dozen steps at any length. When the log is full, the live
// slots are moved together at its upper end.
//
// The owner keeps the slot of each id where it needs it: `moved`, an argument of what gives ids new
// slots, is called with each id and its slot then.
class recency_log {
 public:
  unsigned size() const { return size_; }

  std::uint32_t id(unsigned slot) const { return id_at_[slot]; }

  // The number of ids that are newer than the one in `slot`.
  unsigned position(unsigned slot) const {
    const unsigned word = slot / word_slots;
    std::size_t end = word / lanes;
    std::size_t head = head_ / group_slots;
    unsigned newer = count_bits(live_[word] & (bit(slot) - 1));
    newer += before(sums(word_counts_[end]), word % lanes);
    for (std::size_t level = 0; head < end; ++level) {
      for (std::size_t i = std::max(head, end / fanout * fanout); i < end; ++i)
        newer += counts_[level][i];
      head /= fanout;
      end /= fanout;
    }
    return newer;
  }

  // The slot of the id at a 0-based position below size().
  unsigned slot_at(unsigned position) const {
    const unsigned group = group_of(position);
    const std::uint64_t counted = sums(word_counts_[group]);
    const unsigned lane = first_above(counted, position);
    const unsigned word = group * lanes + lane;
    return word * word_slots + select_bit(live_[word], position - before(counted, lane));
  }

  // The slot of the oldest id.
  unsigned back() {
    while (live_[back_word_] == 0) --back_word_;
    return unsigned(back_word_ * word_slots) + unsigned(std::bit_width(live_[back_word_])) - 1;
  }

  void erase(unsigned slot) {
    live_[slot / word_slots] &= ~bit(slot);
    count<-1>(slot);
    --size_;
  }

  // Makes `id`, which must not be in the log, its newest.
  template <class Moved>
  void push(std::uint32_t id, Moved moved) {
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    ++size_;
  }

  // Makes the id in `slot` the newest.
  template <class Moved>
  void move_to_front(unsigned slot, Moved moved) {
    const std::uint32_t id = id_at_[slot];
    erase(slot);
    push(id, moved);
  }

 private:
  static constexpr unsigned word_slots = 64;

  // The counts of a group's words lie in four lanes of a word, so that one multiplication adds
  // them up.
  static constexpr unsigned lanes = 4;
  static constexpr unsigned lane_bits = 16;
  static constexpr std::uint64_t each_lane = 0x0001000100010001;
  static constexpr unsigned group_slots = lanes * word_slots;

  static constexpr unsigned fanout = 16;
  static constexpr unsigned fewest_slots = fanout * group_slots;

  static std::uint64_t bit(unsigned slot) { return std::uint64_t{1} << slot % word_slots; }

  // In lane i the sum of the lanes 0 to i.
  static std::uint64_t sums(std::uint64_t counts) { return counts * each_lane; }

  // Of such sums: the one of the lanes before `lane`.
  static unsigned before(std::uint64_t sums, unsigned lane) {
    return unsigned(sums << lane_bits >> lane_bits * lane) & 0xFFFF;
  }

  // Of such sums: the first lane in which it is above `position`.
  static unsigned first_above(std::uint64_t sums, unsigned position) {
    constexpr std::uint64_t tops = each_lane << (lane_bits - 1);
    const std::uint64_t above = ((sums | tops) - (position + 1) * each_lane) & tops;
    return unsigned(std::countr_zero(above)) / lane_bits;
  }

  static constexpr std::uint64_t each_byte = 0x0101010101010101;

  // In byte i the number of bits of the bytes 0 to i of `word`.
  static std::uint64_t byte_sums(std::uint64_t word) {
    word -= word >> 1 & 0x5555555555555555;
    word = (word & 0x3333333333333333) + (word >> 2 & 0x3333333333333333);
    return ((word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F) * each_byte;
  }

  // std::popcount, which is a call where processors without the instruction have to be served.
  static unsigned count_bits(std::uint64_t word) { return unsigned(byte_sums(word) >> 56); }

  // The k-th lowest set bit of a word that has more than k.
  static unsigned select_bit(std::uint64_t word, unsigned k) {
    constexpr std::uint64_t tops = 0x80 * each_byte;
    const std::uint64_t counted = byte_sums(word);
    const std::uint64_t above = ((counted | tops) - (k + 1) * each_byte) & tops;
    const unsigned byte = unsigned(std::countr_zero(above)) & ~7u;  // as a bit number
    k -= unsigned(counted << 8 >> byte) & 0xFF;
    return byte + bit_in_byte[k][word >> byte & 0xFF];
  }

  // [k][byte]: the k-th lowest set bit.
  static constexpr auto make_bit_in_byte() {
    std::array<std::array<unsigned char, 256>, 8> table{};
    for (unsigned byte = 0; byte < 256; ++byte)
      for (unsigned bit = 0, k = 0; bit < 8; ++bit)
        if (byte >> bit & 1) table[k++][byte] = static_cast<unsigned char>(bit);
    return table;
  }
  static const std::array<std::array<unsigned char, 256>, 8> bit_in_byte;

  // The group that holds a position, which becomes one within it. Goes up at the end of sixteen,
  // and down again where the position is.
  unsigned group_of(unsigned& position) const {
    std::size_t level = 0;
    std::size_t i = head_ / group_slots;
    while (position >= counts_[level][i]) {
      position -= counts_[level][i++];
      if (i % fanout == 0) {
        i /= fanout;
        ++level;
      }
    }
    for (; level > 0; --level)
      for (i *= fanout; position >= counts_[level - 1][i]; ++i) position -= counts_[level - 1][i];
    return unsigned(i);
  }

  template <int Difference>
  void count(unsigned slot) {
    const unsigned word = slot / word_slots;
    std::size_t group = word / lanes;
    word_counts_[group] += std::uint64_t(Difference) << lane_bits * (word % lanes);
    for (std::vector<unsigned>& counts : counts_) {
      counts[group] += unsigned(Difference);
      group /= fanout;
    }
  }

  template <class Moved>
  void take_slot(std::uint32_t id, Moved moved) {
    --head_;
    live_[head_ / word_slots] |= bit(head_);
    count<1>(head_);
    id_at_[head_] = id;
    moved(id, head_);
  }

  // Moves the live slots to the upper end of the log, which is at most half full then.
  template <class Moved>
  void make_room(Moved moved) {
    std::vector<std::uint32_t> ids;  // newest first
    ids.reserve(size_);
    for (std::size_t i = 0; i < live_.size(); ++i)
      for (std::uint64_t left = live_[i]; left; left &= left - 1)
        ids.push_back(id_at_[i * word_slots + std::size_t(std::countr_zero(left))]);
    reset(std::max(fewest_slots, std::bit_ceil(size_ + 1) * 2));
    for (std::size_t i = ids.size(); i-- > 0;) take_slot(ids[i], moved);
  }

  // Makes the log one of `slots` slots without a live one.
  void reset(unsigned slots) {
    head_ = slots;
    id_at_.resize(slots);
    live_.assign(slots / word_slots, 0);
    back_word_ = live_.size() - 1;
    std::size_t groups = live_.size() / lanes;
    word_counts_.assign(groups, 0);
    counts_.assign(1, std::vector<unsigned>(groups));
    while (groups > fanout) {
      groups = (groups + fanout - 1) / fanout;
      counts_.emplace_back(groups);
    }
  }

  unsigned size_ = 0;
  unsigned head_ = 0;                          // slot of the newest; those below are free
  std::size_t back_word_ = 0;                  // no live slot lies in words behind it
  std::vector<std::uint64_t> live_;            // a bit for each slot
  std::vector<std::uint64_t> word_counts_;     // of the words of each group, by lanes
  std::vector<std::vector<unsigned>> counts_;  // of each group, of each `fanout` groups, ...
  std::vector<std::uint32_t> id_at_;           // by slot
};

inline constexpr std::array<std::array<unsigned char, 256>, 8> recency_log::bit_in_byte =
    recency_log::make_bit_in_byte();
