// Numbers in the order of their latest use, with their positions.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// Distinct numbers ("ids") in the order of their latest use, newest first.
//
// The plain form is an array in that order, in which a use of the id at position k moves k others
// down. Here no id ever moves: each use takes a new slot in a log, below all slots taken before,
// and the slot of the use before dies. The position of an id is then the number of live slots below
// its own. A bitmap tells which slots live; counters over groups of 512 slots, over 16 groups, 16
// times that and so on make the counting, in either direction, a few dozen additions at any length.
// When the log is full, the live slots are moved together at its upper end.
//
// The owner keeps the slot of each id where it needs it: `moved`, an argument of what gives ids new
// slots, is called with each id and its slot then.
class recency_log {
 public:
  unsigned size() const { return size_; }

  std::uint32_t id(unsigned slot) const { return id_at_[slot]; }

  // The number of ids that are newer than the one in `slot`.
  unsigned position(unsigned slot) const {
    std::size_t end = slot / word_slots;
    std::size_t head = head_ / word_slots;
    unsigned newer = count_bits(live_[end] & (bit(slot) - 1));
    for (std::size_t i = std::max(head, end / group_words * group_words); i < end; ++i)
      newer += count_bits(live_[i]);
    end /= group_words;
    head /= group_words;
    for (std::size_t level = 0; head < end; ++level, head /= fanout, end /= fanout)
      for (std::size_t i = std::max(head, end / fanout * fanout); i < end; ++i)
        newer += counts_[level][i];
    return newer;
  }

  // The slot of the id at a 0-based position below size().
  unsigned slot_at(unsigned position) const {
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
    i *= group_words;
    for (unsigned bits; position >= (bits = count_bits(live_[i])); ++i) position -= bits;
    return unsigned(i * word_slots) + select_bit(live_[i], position);
  }

  // The slot of the oldest id.
  unsigned back() {
    while (live_[back_word_] == 0) --back_word_;
    return unsigned(back_word_ * word_slots) + unsigned(std::bit_width(live_[back_word_])) - 1;
  }

  void erase(unsigned slot) {
    live_[slot / word_slots] &= ~bit(slot);
    std::size_t i = slot / group_slots;
    for (auto& level : counts_) {
      --level[i];
      i /= fanout;
    }
    --size_;
  }

  // Makes the id in `slot` the newest.
  template <class Moved>
  void move_to_front(unsigned slot, Moved moved) {
    const std::uint32_t id = id_at_[slot];
    if (head_ == 0) {
      erase(slot);
      return push(id, moved);
    }
    live_[slot / word_slots] &= ~bit(slot);
    take_slot(id, moved);
    std::size_t from = slot / group_slots, to = head_ / group_slots;
    for (auto& level : counts_) {
      --level[from];
      ++level[to];
      from /= fanout;
      to /= fanout;
    }
  }

  // Makes `id`, which must not be in the log, its newest.
  template <class Moved>
  void push(std::uint32_t id, Moved moved) {
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    std::size_t i = head_ / group_slots;
    for (auto& level : counts_) {
      ++level[i];
      i /= fanout;
    }
    ++size_;
  }

 private:
  static constexpr unsigned word_slots = 64;
  static constexpr unsigned group_words = 8;
  static constexpr unsigned group_slots = group_words * word_slots;
  static constexpr unsigned fanout = 16;
  static constexpr unsigned fewest_slots = 4096;

  static std::uint64_t bit(unsigned slot) { return std::uint64_t{1} << slot % word_slots; }

  // std::popcount, which is a call where processors without the instruction have to be served.
  static unsigned count_bits(std::uint64_t word) {
    return unsigned(bits_per_byte(word) * each_byte >> 56);
  }

  static constexpr std::uint64_t each_byte = 0x0101010101010101;

  static std::uint64_t bits_per_byte(std::uint64_t word) {
    word -= word >> 1 & 0x5555555555555555;
    word = (word & 0x3333333333333333) + (word >> 2 & 0x3333333333333333);
    return (word + (word >> 4)) & 0x0F0F0F0F0F0F0F0F;
  }

  // The k-th lowest set bit of `word`, 0-based; there must be more than k.
  static unsigned select_bit(std::uint64_t word, unsigned k) {
    const std::uint64_t sums = bits_per_byte(word) * each_byte;  // byte i: bits in bytes 0 to i
    const std::uint64_t tops = 0x80 * each_byte;
    const std::uint64_t reached = ((sums | tops) - (k + 1) * each_byte) & tops;
    const unsigned first = unsigned(std::countr_zero(reached)) & ~7u;  // its byte, as a bit number
    k -= unsigned(sums << 8 >> first) & 0xFF;
    std::uint64_t rest = word >> first;
    for (; k > 0; --k) rest &= rest - 1;
    return first + unsigned(std::countr_zero(rest));
  }

  template <class Moved>
  void take_slot(std::uint32_t id, Moved moved) {
    --head_;
    live_[head_ / word_slots] |= bit(head_);
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
    const unsigned slots = std::max(fewest_slots, std::bit_ceil(size_ + 1) * 2);
    id_at_.resize(slots);
    live_.assign(slots / word_slots, 0);
    head_ = slots;
    for (std::size_t i = ids.size(); i-- > 0;) take_slot(ids[i], moved);
    count_live();
    back_word_ = slots / word_slots - 1;
  }

  // Each level is filled up to whole groups of `fanout`; the last one is a single group.
  void count_live() {
    counts_.clear();
    std::vector<unsigned> level(live_.size() / group_words);
    for (std::size_t i = 0; i < live_.size(); ++i) level[i / group_words] += count_bits(live_[i]);
    while (level.size() > fanout) {
      std::vector<unsigned> above((level.size() + fanout - 1) / fanout);
      for (std::size_t i = 0; i < level.size(); ++i) above[i / fanout] += level[i];
      counts_.push_back(std::move(level));
      level = std::move(above);
    }
    counts_.push_back(std::move(level));
  }

  unsigned size_ = 0;
  unsigned head_ = 0;                          // slot of the newest; those below are free
  std::size_t back_word_ = 0;                  // no live slot lies in words behind it
  std::vector<std::uint64_t> live_;            // a bit for each slot
  std::vector<std::vector<unsigned>> counts_;  // live slots per group, per `fanout` groups, ...
  std::vector<std::uint32_t> id_at_;           // by slot
};
