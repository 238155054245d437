// The decompressor's contexts in most-recently-used order, found by position. The compressor's
// context_list, which finds them by address, keeps the same order.
#pragma once

#include <utility>
#include <vector>

#include "front_order.h"
#include "growing_array.h"
#include "recency_log.h"

namespace vqpack::detail {

// A list of T, index 0 in front, in blocks of 64: whenever its size reaches `max_blocks` of them,
// the next insertion drops the last 64 elements. The list owns its elements, which never move. The
// first sixteen, which most look-ups want, are ordered by a front_order, the others by a
// recency_log.
template <class T>
class inslist {
 public:
  static constexpr unsigned block_elements = 64;

  unsigned max_index = ~0u;         // highest index that lookup() accepts
  unsigned max_blocks = 0x4000001;  // at least 2

  unsigned size() const { return front_.size() + older_.size(); }

  // Puts a copy of `element` at index 0. Returns where it lives until the next insertion.
  [[gnu::noinline]] T* insert(const T& element) {
    if (size() % block_elements == 0 && size() / block_elements >= max_blocks) drop_block();
    const unsigned id = new_id();
    elements_[id] = element;
    if (front_.size() < front_order::max_size)
      front_ids_[front_.add()] = id;
    else
      older_.push(std::exchange(last_of_front(), id), [](unsigned, unsigned) {});
    return &elements_[id];
  }

  // Moves the element at `index` to index 0. Returns where it lives until the next insertion.
  // Throws a bool, true, when the list holds no such element.
  [[gnu::always_inline]] inline T* lookup(unsigned index) {
    if (index >= size() || index > max_index) throw true;
    if (index < front_order::max_size) return &elements_[front_ids_[front_.move_to_front(index)]];
    unsigned& place = last_of_front();
    place = older_.exchange(index - front_order::max_size, place);
    return &elements_[place];
  }

 private:
  // Moves the last place of the front to its head, where another id may come into it.
  unsigned& last_of_front() { return front_ids_[front_.move_to_front(front_order::max_size - 1)]; }

  unsigned new_id() {
    if (free_.empty()) {
      elements_.resize(elements_.size() + 1);
      return unsigned(elements_.size()) - 1;
    }
    const unsigned id = free_.back();
    free_.pop_back();
    return id;
  }

  void drop_block() {
    for (unsigned i = 0; i < block_elements; ++i) free_.push_back(older_.pop_back());
  }

  front_order front_;
  unsigned front_ids_[front_order::max_size];
  recency_log older_;
  growing_array<T> elements_;   // by id
  std::vector<unsigned> free_;  // ids
};

}  // namespace vqpack::detail
