// The decompressor's contexts: a list whose elements are inserted at the front, and moved to the
// front from anywhere, at small cost.
#pragma once

#include <array>
#include <deque>
#include <memory>
#include <vector>

// A list of T, index 0 in front, in blocks of 64. A block is a circular buffer: its element j sits
// in slot (start + j) mod 64, so that it takes an element at its front, and gives one up at its
// back, by turning `start` alone. An element that moves to the front is taken out of its block with
// at most 32 moves; every block between there and the front passes its last element on to the next.
//
// All blocks but the front one are full. When there are `max_blocks`, a new front block is made of
// the oldest, whose elements are dropped. The list owns its elements; a pointer to one stays good
// until the element is dropped.
template <class T>
class inslist {
 public:
  static constexpr unsigned block_elements = 64;

  unsigned max_index = ~0u;         // highest index that lookup() accepts
  unsigned max_blocks = 0x4000001;  // at least 2; must not change once there are elements

  // Puts a copy of `element` at index 0 and returns where it lives.
  T* insert(const T& element) {
    if (count_ % block_elements == 0) add_block();
    T* const made = take_free(element);
    blocks_.back()->push_front(made);
    ++count_;
    return made;
  }

  // Moves the element at `index` to index 0 and returns it. Throws a bool, true, when the list
  // holds no such element.
  T* lookup(unsigned index) {
    if (index >= size() || index > max_index) throw true;
    block& front = *blocks_.back();
    const unsigned in_front = (count_ - 1) % block_elements + 1;
    if (index < in_front) return front.move_to_front(index, in_front);

    const std::size_t distance = (index - in_front) / block_elements + 1;
    auto target = blocks_.end() - 1 - std::ptrdiff_t(distance);
    const unsigned place = (index - in_front) % block_elements;
    T* const found = (*target)->at(place);
    T* carry = front.at(in_front - 1);
    front.push_front(found);
    for (auto between = blocks_.end() - 2; between != target; --between) {
      T* const last = (*between)->at(block_elements - 1);
      (*between)->push_front(carry);
      carry = last;
    }
    (*target)->move_to_front(place, block_elements);
    (*target)->at(0) = carry;
    return found;
  }

  // Elements held; those of recycled blocks no longer are.
  unsigned long long size() const { return count_ - dropped_; }

 private:
  struct block {
    unsigned start = 0;
    std::array<T*, block_elements> slots{};

    T*& at(unsigned element) { return slots[(start + element) % block_elements]; }

    void push_front(T* element) {
      start = (start - 1) % block_elements;
      at(0) = element;
    }

    // Closes the gap that the element leaves from the side where fewer have to move.
    T* move_to_front(unsigned element, unsigned held) {
      T* const moved = at(element);
      if (element < held / 2) {
        for (unsigned i = element; i > 0; --i) at(i) = at(i - 1);
        at(0) = moved;
      } else {
        for (unsigned i = element; i + 1 < held; ++i) at(i) = at(i + 1);
        push_front(moved);
      }
      return moved;
    }
  };

  void add_block() {
    if (blocks_.size() < max_blocks) {
      blocks_.push_back(std::make_unique<block>());
      return;
    }
    blocks_.push_back(std::move(blocks_.front()));
    blocks_.pop_front();
    free_.insert(free_.end(), blocks_.back()->slots.begin(), blocks_.back()->slots.end());
    dropped_ += block_elements;
  }

  // Elements come from blocks of their own, or are those of a recycled block.
  T* take_free(const T& element) {
    if (free_.empty()) {
      auto& room = storage_.emplace_back(std::make_unique<std::array<T, block_elements>>());
      for (T& place : *room) free_.push_back(&place);
    }
    T* const taken = free_.back();
    free_.pop_back();
    *taken = element;
    return taken;
  }

  unsigned long long count_ = 0;               // elements ever inserted
  unsigned long long dropped_ = 0;             // of them, those of recycled blocks
  std::deque<std::unique_ptr<block>> blocks_;  // oldest first
  std::vector<T*> free_;
  std::vector<std::unique_ptr<std::array<T, block_elements>>> storage_;
};
