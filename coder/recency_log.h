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

#include "bits.h"
#include "growing_array.h"
#include "prefetch.h"
#include "processor.h"

#ifdef VQPACK_X86
#include <emmintrin.h>
#endif

namespace vqpack::detail {

// Distinct numbers ("ids") in the order of their latest use, newest first.
//
// The plain form is an array in that order, in which a use of the id at position k moves k others
// down. Here no id ever moves: each use takes a new slot in a log, the next below all slots taken
// before, and the slot of the use before dies. So the position of an id is the number of living
// slots between the newest slot and its own. A bitmap marks the living slots. So that they need not
// be counted anew, a row keeps for each of 32 words of the bitmap the number of living slots before
// it in the row, another kind of row the same for 32 of those rows, which make a block, and an
// array the number of living slots in each block. Free slots, those below the newest, count as
// living. A death takes one from the later numbers of a row of each kind, which is a vector
// subtraction, and from a block; a use changes nothing else. A log of one row has no use for the
// rest. When the log is full, the living slots are moved together at its upper end.
//
// A caller that knows the slots may make many uses before it asks for their positions, which takes
// less time: move_to_front() and settle().
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
    prefetch(&living_[slot / word_slots]);
    prefetch(&words_[slot / row_slots]);
  }

  // Calls `use` with each id, the oldest first.
  template <class Use>
  void from_oldest(Use use) const {
    for (std::size_t i = living_.size(); i-- > head_ / word_slots;) {
      std::uint64_t live = living_[i];
      if (i == head_ / word_slots) live &= ~(bit(head_) - 1);
      while (live != 0) {
        const unsigned k = unsigned(std::bit_width(live)) - 1;
        use(id_at_[i * word_slots + k]);
        live &= ~bit(k);
      }
    }
  }

  // Takes the oldest id out of the log. No position reaches past its slot any more, so that the
  // numbers of living slots need not know.
  std::uint32_t pop_back() {
    assert(size_ > 0);
    while (living_[back_word_] == 0) --back_word_;
    const unsigned k = unsigned(std::bit_width(living_[back_word_])) - 1;
    living_[back_word_] &= ~bit(k);
    --size_;
    return id_at_[back_word_ * word_slots + k];
  }

  // Makes `id`, which must not be in the log, its newest.
  template <class Moved>
  void push(std::uint32_t id, Moved moved) {
    if (head_ == 0) make_room(moved);
    take_slot(id, moved);
    ++size_;
  }

  // How many times move_to_front() may be called before this must be asked again; at least once.
  template <class Moved>
  unsigned room(Moved moved) {
    if (head_ == 0) [[unlikely]]
      make_room(moved);
    return head_;
  }

  // Makes `id`, which is in the log, the newest; the slot that it had dies in settle(). Before
  // that, only more of these calls may follow.
  template <class Moved>
  void move_to_front(std::uint32_t id, Moved moved) {
    take_slot(id, moved);
  }

  // Settles all uses since the last call, `size` of them, in the order in which they were made.
  // slots[i] is the slot that the id had before, positions[i] receives its 0-based position then.
  [[gnu::always_inline]] inline void settle(const unsigned* slots, std::size_t size,
                                            int* positions) {
    unsigned head = head_ + unsigned(size);  // the slot of the newest id before each use
    if (words_.size() == 1)
      for (std::size_t i = 0; i < size; ++i) positions[i] = kill<true>(slots[i], head--);
    else
      for (std::size_t i = 0; i < size; ++i) positions[i] = kill<false>(slots[i], head--);
  }

  // Takes the id at a 0-based position below size() out of the log and makes `newest`, which must
  // not be in it, its newest.
  std::uint32_t exchange(unsigned position, std::uint32_t newest) {
    assert(position < size_);
    unsigned living = head_ + position;  // to be passed over, the free slots first
    std::size_t i = 0;
    if (words_.size() > 1) {
      while (living >= blocks_[i]) living -= blocks_[i++];
      --blocks_[i];
      i = rows_[i].take(living) + i * fanout;
    }
    i = words_[i].take(living) + i * fanout;
    const unsigned k = select_bit(living_[i], living);
    living_[i] &= ~bit(k);
    const std::uint32_t taken = id_at_[i * word_slots + k];
    const auto moved = [](std::uint32_t, unsigned) {};
    if (head_ == 0) make_room(moved);
    take_slot(newest, moved);
    return taken;
  }

 private:
  static constexpr unsigned fanout = 32;
  static constexpr unsigned word_slots = 64;
  static constexpr unsigned row_slots = fanout * word_slots;
  static constexpr unsigned block_slots = fanout * row_slots;
  static constexpr unsigned max_ids = 1 << 29;  // so that their slots can be counted

  using sixteen_counts [[gnu::vector_size(32), gnu::may_alias]] = std::uint16_t;

  // steps[place][i] is 1 for each i above `place`, else 0.
  using step = std::array<std::uint16_t, fanout>;
  alignas(64) static constexpr auto steps = [] {
    std::array<step, fanout> all{};
    for (unsigned place = 0; place < fanout; ++place)
      for (unsigned i = place + 1; i < fanout; ++i) all[place][i] = 1;
    return all;
  }();

  // How many of the living slots come before each of 32 elements; in a block, that fits 16 bits.
  struct row {
    alignas(64) std::uint16_t before[fanout];
    static_assert(block_slots - row_slots <= 0xFFFF);

    explicit row(unsigned element_slots) {
      for (unsigned i = 0; i < fanout; ++i)
        before[i] = static_cast<std::uint16_t>(i * element_slots);
    }

    // A slot of the element at `place` dies.
    void kill(std::size_t place) {
      const auto* const step = reinterpret_cast<const sixteen_counts*>(&steps[place]);
      auto* const counts = reinterpret_cast<sixteen_counts*>(before);
      for (unsigned i = 0; i < fanout / 16; ++i) counts[i] -= step[i];
    }

    // Lets the slot die that has `living` living ones before it; returns its element's place, and
    // takes those before that off `living`. The next use waits for the new numbers, which therefore
    // are made without the place.
    std::size_t take(unsigned& living) {
#ifdef VQPACK_X86
      const __m128i most = _mm_set1_epi16(static_cast<short>(living));
      const auto update = [&](unsigned i) {
        auto* const eight = reinterpret_cast<__m128i*>(&before[i]);
        const __m128i numbers = _mm_load_si128(eight);
        const __m128i up_to = _mm_cmpeq_epi16(_mm_subs_epu16(numbers, most), _mm_setzero_si128());
        _mm_store_si128(eight, _mm_sub_epi16(_mm_add_epi16(numbers, _mm_set1_epi16(-1)), up_to));
        return up_to;
      };
      const auto update_16 = [&](unsigned i) {
        const __m128i low = update(i), high = update(i + 8);
        return unsigned(_mm_movemask_epi8(_mm_packs_epi16(low, high)));
      };
      const std::uint32_t low = update_16(0);
      const std::size_t place = std::size_t(std::bit_width(low | update_16(16) << 16)) - 1;
#else
      const auto limit = static_cast<std::uint16_t>(living);
      std::size_t place = fanout - 1;
      for (std::uint16_t& number : before) {
        const bool above = number > limit;
        number = static_cast<std::uint16_t>(number - above);
        place -= above;
      }
#endif
      living -= before[place];
      return place;
    }
  };

  static std::uint64_t bit(unsigned slot) { return std::uint64_t{1} << slot % word_slots; }

  // Lets a slot die, and returns the number of living ones between the newest, `head`, and it.
  template <bool OneRow>
  int kill(unsigned slot, unsigned head) {
    const std::size_t word = slot / word_slots, words = slot / row_slots,
                      block = slot / block_slots;
    assert(slot < id_at_.size() && (living_[word] & bit(slot)));
    unsigned living = count_bits(living_[word] & (bit(slot) - 1)) - head;
    living_[word] &= ~bit(slot);
    row& of_words = words_[OneRow ? 0 : words];
    living += of_words.before[word % fanout];
    of_words.kill(word % fanout);
    if (OneRow) return int(living);
    living += rows_[block].before[words % fanout];
    rows_[block].kill(words % fanout);
    --blocks_[block];
    for (std::size_t i = 0; i < block; ++i) living += blocks_[i];
    return int(living);
  }

  template <class Moved>
  void take_slot(std::uint32_t id, Moved moved) {
    const unsigned slot = --head_;
    id_at_[slot] = id;
    moved(id, slot);
  }

  // Moves the living slots to the upper end of the log, which is at most half full then.
  template <class Moved>
  [[gnu::noinline]] void make_room(Moved moved) {
    if (size_ >= max_ids) throw std::bad_alloc();
    const unsigned slots = std::max({row_slots, unsigned(id_at_.size()), std::bit_ceil(3 * size_)});
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
    living_.assign(slots / word_slots, ~std::uint64_t{0});
    back_word_ = living_.size() - 1;
    words_.assign((slots + row_slots - 1) / row_slots, row(word_slots));
    const std::size_t blocks = (slots + block_slots - 1) / block_slots;
    rows_.assign(blocks, row(row_slots));
    blocks_.assign(blocks, block_slots);
  }

  unsigned size_ = 0;
  unsigned head_ = 0;                   // slot of the newest; those below are free
  std::size_t back_word_ = 0;           // all slots in the words above it are dead
  std::vector<std::uint64_t> living_;   // a bit for each slot
  std::vector<row> words_;              // of the bitmap, the living slots before each
  std::vector<row> rows_;               // the same for the rows of `words_`
  std::vector<unsigned> blocks_;        // the living slots in each
  growing_array<std::uint32_t> id_at_;  // by slot
};

}  // namespace vqpack::detail
