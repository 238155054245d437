// Numbers in the order of their latest use, with their positions.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

#include "prefetch.h"

namespace vqpack::detail {

// Distinct numbers ("ids") in the order of their latest use, newest first.
//
// The plain form is an array in that order, in which a use of the id at position k moves k others
// down. Here no id ever moves: each use takes a new slot in a log, the next below all slots taken
// before, and the slot of the use before dies. So the position of an id is the number of living
// slots between the newest slot and its own. A bitmap marks the dead slots. So that the
// others need not be counted anew, each word of the bitmap keeps the number of living slots before
// it in its row of eight words, each row the number of those before it among eight rows, and so on
// (free slots, those below the newest, count as living): a death takes one from some neighbouring
// numbers of a row on each level, which is a vector subtraction, and a use changes nothing else.
// When the log is full, the living slots are moved together at its upper end.
//
// The owner keeps the slot of each id where it needs it: `moved`, an argument of what gives ids new
// slots, is called with each id and its slot then. Throws std::bad_alloc above 2^29 ids.
class recency_log {
 public:
  unsigned size() const { return size_; }

  std::uint32_t id(unsigned slot) const { return id_at_[slot]; }

  // Fetches what a use of `slot` reads into the caches, if there is such a slot.
  void prepare(unsigned slot) const {
    if (slot >= id_at_.size()) return;
    prefetch(&dead_[slot / word_slots]);
    prefetch(&before_[0][slot / (word_slots * fanout)]);
    prefetch(&id_at_[slot]);
  }

  // Calls `use` with each id, the oldest first.
  template <class Use>
  void from_oldest(Use use) const {
    for (std::size_t i = dead_.size(); i-- > head_ / word_slots;) {
      std::uint64_t live = ~dead_[i];
      if (i == head_ / word_slots) live &= ~(bit(head_) - 1);
      while (live != 0) {
        const unsigned k = unsigned(std::bit_width(live)) - 1;
        use(id_at_[i * word_slots + k]);
        live &= ~bit(k);
      }
    }
  }

  // The slot of the oldest id.
  unsigned back() {
    assert(size_ > 0);
    while (~dead_[back_word_] == 0) --back_word_;
    return unsigned(back_word_ * word_slots) + unsigned(std::bit_width(~dead_[back_word_])) - 1;
  }

  void erase(unsigned slot) {
    kill(slot);
    --size_;
  }

  // Makes `id`, which must not be in the log, its newest.
  template <class Moved>
  void push(std::uint32_t id, Moved moved) {
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    ++size_;
  }

  // Makes the id in `slot` the newest; returns the position that it had.
  template <class Moved>
  unsigned move_to_front(unsigned slot, Moved moved) {
    const std::uint32_t id = id_at_[slot];
    const unsigned position = kill(slot) - head_;
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    return position;
  }

  // Takes the id at a 0-based position below size() out of the log and makes `newest`, which must
  // not be in it, its newest.
  std::uint32_t exchange(unsigned position, std::uint32_t newest) {
    assert(position < size_);
    unsigned living = head_ + position;  // to be passed over, the free slots first
    std::size_t i = 0;
    for (std::size_t n = before_.size(); n-- > 0;) {
      eight& before = before_[n][i].before;
      const unsigned place = last_up_to(before, living);
      living -= before[place];
      before -= steps[place];
      i = i * fanout + place;
    }
    const unsigned k = select_bit(~dead_[i], living);
    dead_[i] |= bit(k);
    const std::uint32_t taken = id_at_[i * word_slots + k];
    const auto moved = [](std::uint32_t, unsigned) {};
    if (head_ == 0) make_room(moved);
    take_slot(newest, moved);
    return taken;
  }

 private:
  static constexpr unsigned word_slots = 64;
  static constexpr unsigned fanout = 8;
  static constexpr unsigned max_ids = 1 << 29;  // so that their slots can be counted
  static constexpr unsigned min_slots = fanout * fanout * word_slots;

  // One number for each of eight elements.
  using eight [[gnu::vector_size(fanout * sizeof(unsigned))]] = unsigned;
  // How many of the living slots come before each of them. A vector type by itself is aligned for
  // its own size only where the compiler may use registers of that size.
  struct alignas(fanout * sizeof(unsigned)) row {
    eight before;
  };
  using level = std::vector<row>;

  static std::uint64_t bit(unsigned slot) { return std::uint64_t{1} << slot % word_slots; }

  // steps[place][i] is 1 for each i above `place`, else 0.
  alignas(row) static constexpr eight steps[fanout] = {
      {0, 1, 1, 1, 1, 1, 1, 1}, {0, 0, 1, 1, 1, 1, 1, 1}, {0, 0, 0, 1, 1, 1, 1, 1},
      {0, 0, 0, 0, 1, 1, 1, 1}, {0, 0, 0, 0, 0, 1, 1, 1}, {0, 0, 0, 0, 0, 0, 1, 1},
      {0, 0, 0, 0, 0, 0, 0, 1}, {0, 0, 0, 0, 0, 0, 0, 0}};

  // Lets `slot` die; returns the number of living ones below it.
  unsigned kill(unsigned slot) {
    std::size_t i = slot / word_slots;
    assert(slot >= head_ && slot < id_at_.size() && !(dead_[i] & bit(slot)));
    unsigned living = count_bits(~dead_[i] & (bit(slot) - 1));
    dead_[i] |= bit(slot);
    for (level& before : before_) {
      const std::size_t place = i % fanout;
      i /= fanout;
      living += before[i].before[place];
      before[i].before -= steps[place];
    }
    return living;
  }

  template <class Moved>
  void take_slot(std::uint32_t id, Moved moved) {
    const unsigned slot = --head_;
    id_at_[slot] = id;
    moved(id, slot);
  }

  // The place of the last number in a row that is not above `limit`; the first never is.
  static unsigned last_up_to(const eight& before, unsigned limit) {
    unsigned place = 0;
    for (unsigned i = 1; i < fanout; ++i) place += before[i] <= limit;
    return place;
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
    assert(k < counted >> 56);
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

  // Moves the living slots to the upper end of the log, which is at most half full then.
  template <class Moved>
  void make_room(Moved moved) {
    if (size_ >= max_ids) throw std::bad_alloc();
    const unsigned slots =
        std::max({min_slots, unsigned(id_at_.size()), std::bit_ceil(size_ + 1) * 2});
    id_at_.resize(slots);
    unsigned slot = slots;
    from_oldest([&](std::uint32_t id) {
      id_at_[--slot] = id;
      moved(id, slot);
    });
    head_ = slot;
    revive(slots);
  }

  // Makes a log of `slots` slots without a dead one.
  void revive(unsigned slots) {
    dead_.assign(slots / word_slots, 0);
    back_word_ = dead_.size() - 1;
    before_.clear();
    std::size_t rows = dead_.size();
    unsigned element = word_slots;
    do {
      rows = (rows + fanout - 1) / fanout;
      before_.emplace_back(rows, row{eight{0, 1, 2, 3, 4, 5, 6, 7} * element});
      element *= fanout;
    } while (rows > 1);
  }

  unsigned size_ = 0;
  unsigned head_ = 0;                 // slot of the newest; those below are free
  std::size_t back_word_ = 0;         // all slots in the words above it are dead
  std::vector<std::uint64_t> dead_;   // a bit for each slot
  std::vector<level> before_;         // by level: words first
  std::vector<std::uint32_t> id_at_;  // by slot
};

inline constexpr std::array<std::array<unsigned char, 256>, 8> recency_log::bit_in_byte =
    recency_log::make_bit_in_byte();

}  // namespace vqpack::detail
