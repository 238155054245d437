// Numbers in the order of their latest use, with their positions.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// Distinct numbers ("ids") in the order of their latest use, newest first.
//
// The plain form is an array in that order, in which a use of the id at position k moves k others
// down. Here no id ever moves: each use takes a new slot in a log, below all slots taken before,
// and the slot of the use before dies. A bitmap tells which slots live, and the position of an id
// is the number of live slots below its own. A tree of counts over the bitmap makes that, and the
// way from a position to its slot, a few steps of arithmetic without a loop that could be
// mispredicted. When the log is full, the live slots are moved together at its upper end.
//
// The owner keeps the slot of each id where it needs it: `moved`, an argument of what gives ids new
// slots, is called with each id and its slot then.
class recency_log {
 public:
  unsigned size() const { return size_; }

  std::uint32_t id(unsigned slot) const { return id_at_[slot]; }

  // The number of ids that are newer than the one in `slot`.
  unsigned position(unsigned slot) const {
    unsigned newer = count_bits(live_[slot / word_slots] & (bit(slot) - 1));
    unsigned child = slot / word_slots;
    if (child == head_ / word_slots) return newer;
    for (const auto& level : nodes_) {
      newer += before(sums(level[child / lanes]), child % lanes);
      child /= lanes;
    }
    for (std::size_t level = 0, head = head_ / subtree_slots, end = child; head < end; ++level) {
      for (std::size_t i = std::max(head, end / fanout * fanout); i < end; ++i)
        newer += counts_[level][i];
      head /= fanout;
      end /= fanout;
    }
    return newer;
  }

  // The slot of the id at a 0-based position below size().
  unsigned slot_at(unsigned position) const {
    unsigned child = head_ / word_slots;
    if (position >= count_bits(live_[child])) {
      child = subtree_of(position);
      for (std::size_t level = nodes_.size(); level-- > 0;) {
        const std::uint64_t counted = sums(nodes_[level][child]);
        const unsigned lane = unsigned(std::countr_zero(above(counted, position))) / lane_bits;
        position -= before(counted, lane);
        child = child * lanes + lane;
      }
    }
    return child * word_slots + select_bit(live_[child], position);
  }

  // The slot of the oldest id.
  unsigned back() {
    while (live_[back_word_] == 0) --back_word_;
    return unsigned(back_word_ * word_slots) + unsigned(std::bit_width(live_[back_word_])) - 1;
  }

  void erase(unsigned slot) {
    live_[slot / word_slots] &= ~bit(slot);
    add<-1>(slot);
    --size_;
  }

  // Makes `id`, which must not be in the log, its newest.
  template <class Moved>
  void push(std::uint32_t id, Moved moved) {
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    add<1>(head_);
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

  // Over each 64 slots of the bitmap stands a tree of three levels. A node counts the live slots of
  // its four children in four lanes of 16 bits, so that one multiplication adds up lanes.
  static constexpr unsigned lanes = 4;
  static constexpr unsigned lane_bits = 16;
  static constexpr std::uint64_t each_lane = 0x0001000100010001;
  static constexpr unsigned subtree_slots = word_slots * lanes * lanes * lanes;
  static_assert(subtree_slots < 1u << (lane_bits - 1));  // `above` needs the uppermost bit

  // Over the trees stand arrays of their sums, of the sums of 16 of those, and so on.
  static constexpr unsigned fanout = 16;

  static std::uint64_t bit(unsigned slot) { return std::uint64_t{1} << slot % word_slots; }

  // In lane i the sum of the lanes 0 to i.
  static std::uint64_t sums(std::uint64_t node) { return node * each_lane; }

  // Of such sums: the one of the lanes before `lane`.
  static unsigned before(std::uint64_t sums, unsigned lane) {
    return unsigned(sums << lane_bits >> lane_bits * lane) & 0xFFFF;
  }

  // Of such sums: the uppermost bits of the lanes in which it is above `position`.
  static std::uint64_t above(std::uint64_t sums, unsigned position) {
    constexpr std::uint64_t tops = each_lane << (lane_bits - 1);
    return ((sums | tops) - (position + 1) * each_lane) & tops;
  }

  static constexpr std::uint64_t each_byte = 0x0101010101010101;

  // The same within a word: in byte i the bits of the bytes 0 to i.
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
    const std::uint64_t reached = ((counted | tops) - (k + 1) * each_byte) & tops;
    const unsigned byte = unsigned(std::countr_zero(reached)) & ~7u;  // as a bit number
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

  // The tree that holds a position; makes the position one in it.
  unsigned subtree_of(unsigned& position) const {
    std::size_t level = 0;
    std::size_t i = head_ / subtree_slots;
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
  void add(unsigned slot) {
    unsigned child = slot / word_slots;
    for (auto& level : nodes_) {
      level[child / lanes] += static_cast<std::uint64_t>(Difference) << lane_bits * (child % lanes);
      child /= lanes;
    }
    for (auto& level : counts_) {
      level[child] += unsigned(Difference);
      child /= fanout;
    }
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
    reset(std::max(subtree_slots, std::bit_ceil(size_ + 1) * 2));
    for (std::size_t i = ids.size(); i-- > 0;) {
      take_slot(ids[i], moved);
      add<1>(head_);
    }
  }

  // Makes the log one of `slots` slots without a live one.
  void reset(unsigned slots) {
    head_ = slots;
    id_at_.resize(slots);
    live_.assign(slots / word_slots, 0);
    back_word_ = live_.size() - 1;
    std::size_t nodes = live_.size();
    for (auto& level : nodes_) level.assign(nodes /= lanes, 0);
    counts_.clear();
    for (; nodes > fanout; nodes = (nodes + fanout - 1) / fanout) counts_.emplace_back(nodes, 0u);
    counts_.emplace_back(nodes, 0u);
  }

  unsigned size_ = 0;
  unsigned head_ = 0;                                // slot of the newest; those below are free
  std::size_t back_word_ = 0;                        // no live slot lies in words behind it
  std::vector<std::uint64_t> live_;                  // a bit for each slot
  std::array<std::vector<std::uint64_t>, 3> nodes_;  // from the leaves upwards
  std::vector<std::vector<unsigned>> counts_;        // over the trees, from them upwards
  std::vector<std::uint32_t> id_at_;                 // by slot
};

inline constexpr std::array<std::array<unsigned char, 256>, 8> recency_log::bit_in_byte =
    recency_log::make_bit_in_byte();
