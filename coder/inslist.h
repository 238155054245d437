// The decompressor's contexts in most-recently-used order.
#pragma once

#include <vector>

#include "recency_log.h"

// A list of T, index 0 in front, in blocks of 64: whenever its size reaches `max_blocks` of them,
// the next insertion drops the last 64 elements. The list owns its elements, which never move; a
// recency_log keeps their order.
template <class T>
class inslist {
 public:
  static constexpr unsigned block_elements = 64;

  unsigned max_index = ~0u;         // highest index that lookup() accepts
  unsigned max_blocks = 0x4000001;  // at least 1

  unsigned size() const { return order_.size(); }

  // Puts a copy of `element` at index 0. Returns where it lives until the next insertion.
  T* insert(const T& element) {
    if (size() % block_elements == 0 && size() / block_elements >= max_blocks) drop_block();
    if (free_.empty()) {
      free_.push_back(unsigned(elements_.size()));
      elements_.emplace_back();
    }
    const unsigned id = free_.back();
    free_.pop_back();
    elements_[id] = element;
    order_.push(id, [](unsigned, unsigned) {});
    return &elements_[id];
  }

  // Moves the element at `index` to index 0. Returns where it lives until the next insertion.
  // Throws a bool, true, when the list holds no such element.
  T* lookup(unsigned index) {
    if (index >= size() || index > max_index) throw true;
    const unsigned slot = order_.slot_at(index);
    const unsigned id = order_.id(slot);
    order_.move_to_front(slot, [](unsigned, unsigned) {});
    return &elements_[id];
  }

 private:
  void drop_block() {
    for (unsigned i = 0; i < block_elements; ++i) {
      const unsigned slot = order_.back();
      free_.push_back(order_.id(slot));
      order_.erase(slot);
    }
  }

  recency_log order_;
  std::vector<T> elements_;     // by id
  std::vector<unsigned> free_;  // ids
};
