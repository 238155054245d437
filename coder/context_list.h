// The compressor's contexts in most-recently-used order.
#pragma once

#include <cstddef>
#include <utility>
#include <vector>

#include "vqcomp.h"

// Keeps at most `max_contexts` contexts. One matches a transaction of the same type and agent whose
// address lies less than `window` away; addresses and window are in the codec's address units.
class context_list {
 public:
  context_list(unsigned max_contexts, long long window)
      : max_contexts_(max_contexts), window_(window) {}

  // Finds the first context in list order that `wanted` matches, moves it to the front, gives it
  // the wanted address and stores the one that it had in `prev`. Returns its 0-based position
  // before the move. When none matches, puts `wanted` at the front, drops the last context if there
  // are too many, and returns -1.
  //
  // The walk carries each context one place down as it passes, so that the list is in its new order
  // where the walk ends.
  int touch(const VQcomp::context& wanted, long long& prev) {
    VQcomp::context carried = wanted;
    for (std::size_t i = 0; i < entries_.size(); ++i) {
      std::swap(carried, entries_[i]);
      if (matches(carried, wanted)) {
        prev = carried.addr;
        return int(i);
      }
    }
    if (entries_.size() < max_contexts_) entries_.push_back(carried);
    return -1;
  }

  std::size_t size() const { return entries_.size(); }

 private:
  bool matches(const VQcomp::context& entry, const VQcomp::context& wanted) const {
    return entry.trans == wanted.trans && entry.agent == wanted.agent &&
           entry.addr - window_ < wanted.addr && wanted.addr < entry.addr + window_;
  }

  std::vector<VQcomp::context> entries_;  // front first
  std::size_t max_contexts_;
  long long window_;
};
