// The order of up to sixteen things that stay where they are.
#pragma once

#include <cassert>
#include <cstdint>

namespace vqpack::detail {

// A permutation of the numbers of the things, 0 to 15, in four bits each, position 0 lowest: what
// moves a thing to the front is a few shifts of one word.
class front_order {
 public:
  static constexpr unsigned max_size = 16;

  unsigned size() const { return size_; }

  // The thing at a position below size().
  unsigned at(unsigned position) const {
    assert(position < size_);
    return unsigned(order_ >> 4 * position) & 0xF;
  }

  // Returns the thing that it moves.
  unsigned move_to_front(unsigned position) {
    const unsigned thing = at(position);
    const std::uint64_t before = (std::uint64_t{1} << 4 * position) - 1;
    const std::uint64_t after = ~before << 4;
    order_ = (order_ & after) | (order_ & before) << 4 | thing;
    return thing;
  }

  // Puts one more thing in front of the others, of which there must be less than `max_size`, and
  // returns its number, the size before.
  unsigned add() {
    assert(size_ < max_size);
    order_ = order_ << 4 | size_;
    return size_++;
  }

 private:
  std::uint64_t order_ = 0;
  unsigned size_ = 0;
};

}  // namespace vqpack::detail
