// The compressor's contexts in most-recently-used order, found by address. The decompressor's
// inslist, which finds them by position, keeps the same order.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "prefetch.h"
#include "recency_log.h"
#include "vqtypes.h"

namespace vqpack::detail {

// Keeps at most `max_contexts` contexts. One matches a transaction of the same type and agent whose
// address lies less than `window` away; addresses and window are in the codec's address units, from
// 0 to 2^61. Agents have at most 16 bits.
//
// The plain form walks an array in list order up to the first match. Here contexts are found
// through a hash table of type, agent and region of the address, where a region is a power of two
// at least twice as long as the window: what matches an address lies in its region or in the
// neighbour that is nearer to it. The entries of each chain of the table are in list order, so that
// the first match of a chain is its newest, and the newer of two such matches is the first in list
// order. Its position comes from a recency_log. The front is found like all others: to look at it
// first costs more than it saves, except where a trace is a single stream of lines.
//
// Matching contexts may drift together, and a trace made for it can gather all of them at one edge
// of a region, just out of reach; walking that chain then costs what the plain walk costs.
class context_list {
 public:
  context_list(unsigned max_contexts, long long window)
      : max_contexts_(max_contexts),
        reach_(window - 1),
        match_span_(window < 1 ? 0 : std::uint64_t(2 * window - 1)),
        region_bits_(region_bits(window)) {
    // Entry 0 ends every chain: nothing matches it, and it is older than all others.
    entries_.push_back(
        {.addr = 0, .key = no_key, .chain = 0, .newer = none, .older = none, .slot = oldest});
    rehash();
  }

  // How often find() may be called before settle(); at least once. All uses must be settled.
  std::size_t room() { return order_.room(note_slot{entries_}); }

  // Finds the first context in list order that `wanted` matches, moves it to the front, gives it
  // the wanted address, and stores the one that it had in `prev`. Its position is still to come:
  // settle() takes what is stored in `use`. When none matches, returns false and changes nothing.
  [[gnu::always_inline]] inline bool find(const VQcontext& wanted, long long& prev, unsigned& use) {
    assert(wanted.addr >= 0 && wanted.addr <= max_addr && unsigned(wanted.agent) <= 0xFFFF);
    const std::uint64_t key = key_of(wanted);
    const auto [home, neighbour] = chains_for(wanted);
    std::uint32_t found = chains_[home];
    if (!matches(entries_[found], key, wanted.addr) ||
        entries_[chains_[neighbour]].slot < entries_[found].slot) {
      found = search(home, neighbour, key, wanted.addr);
      if (found == none) return false;
    }
    prev = entries_[found].addr;
    use = entries_[found].slot;
    set_addr(found, wanted.addr);
    order_.move_to_front(found, note_slot{entries_});
    return true;
  }

  // Stores the 0-based positions at which find() found contexts in its last `size` calls, which
  // must be all since the last settle(); uses[i] is what it stored in `use`.
  [[gnu::always_inline]] inline void settle(const unsigned* uses, std::size_t size,
                                            int* positions) {
    order_.settle(uses, size, positions);
  }

  // Puts a context that find() has not found at the front, and drops the last one if there are too
  // many. All uses must be settled.
  [[gnu::noinline]] void insert(const VQcontext& added) {
    if (max_contexts_ == 0) return;
    std::uint32_t id;
    if (order_.size() < max_contexts_) {
      if (entries_.size() > chains_.size() / 2) rehash();
      id = std::uint32_t(entries_.size());
      entries_.emplace_back();
    } else {
      id = order_.pop_back();
      unlink(id);
    }
    entries_[id].addr = added.addr;
    entries_[id].key = std::uint32_t(key_of(added));
    link(id);
    order_.push(id, note_slot{entries_});
  }

  std::size_t size() const { return order_.size(); }

  // Prepares find() for the contexts that wanted(0) to wanted(size - 1) return. Changes nothing.
  //
  // In a list that has outgrown the caches, find() waits for memory three times, each time for a
  // place that it learns from the one before. Here all of them are fetched side by side: with a
  // million contexts a transaction takes a third of the time.
  template <class Wanted>
  void prepare(std::size_t size, Wanted wanted) const {
    if (order_.size() < min_prepared_size) return;
    for (std::size_t i = 0; i < size; ++i)
      for (const std::uint32_t chain : chains_for(wanted(i))) prefetch(&chains_[chain]);
    for (std::size_t i = 0; i < size; ++i)
      for (const std::uint32_t chain : chains_for(wanted(i))) prefetch(&entries_[chains_[chain]]);
    for (std::size_t i = 0; i < size; ++i)
      order_.prepare(entries_[chains_[chains_for(wanted(i))[0]]].slot);
  }

 private:
  static constexpr long long max_addr = 1LL << 61;
  static constexpr unsigned min_prepared_size = 1 << 15;
  static constexpr std::uint32_t none = 0;  // the entry that ends every chain
  static constexpr std::uint32_t no_key = ~0u;
  static constexpr std::uint64_t next_region = 0x9E3779B97F4A7C15;  // odd, its bits well mixed
  // The slot of that entry.
  static constexpr unsigned oldest = ~0u;

  struct entry {
    long long addr;
    std::uint32_t key;    // agent and type
    std::uint32_t chain;  // index into `chains_`
    std::uint32_t newer;  // neighbours in the chain, or `none`
    std::uint32_t older;
    unsigned slot;  // in `order_`: the lower, the newer
  };

  static int region_bits(long long window) {
    return window < 1 ? 1 : std::min(62, int(std::bit_width(std::uint64_t(window))) + 1);
  }

  // As wide as the hash: of a narrower one g++ would store 32 bits and load 64, which must wait.
  static std::uint64_t key_of(const VQcontext& context) {
    return unsigned(context.agent) << 8 | context.trans;
  }

  long long region_of(long long addr) const { return addr >> region_bits_; }

  bool matches(const entry& e, std::uint64_t key, long long addr) const {
    return std::uint64_t(addr - e.addr + reach_) < match_span_ && e.key == key;
  }

  // The hash for the next region is `next_region` more.
  static std::uint64_t hash(std::uint64_t key, long long region) {
    return (std::uint64_t(region) + (key << 40)) * next_region;
  }
  std::uint32_t chain_of(std::uint64_t hash) const { return std::uint32_t(hash >> chain_shift_); }

  // The newest match in a chain that is newer than `slot`, or `none`.
  std::uint32_t first_match(std::uint32_t chain, std::uint64_t key, long long addr,
                            unsigned slot) const {
    std::uint32_t id = chains_[chain];
    while (entries_[id].slot < slot && !matches(entries_[id], key, addr)) id = entries_[id].older;
    return entries_[id].slot < slot ? id : none;
  }

  // Those of the region that holds an address and of the neighbour that is nearer to it.
  std::array<std::uint32_t, 2> chains_for(const VQcontext& wanted) const {
    const std::uint64_t home = hash(key_of(wanted), region_of(wanted.addr));
    const bool is_upper_half = wanted.addr >> (region_bits_ - 1) & 1;
    return {chain_of(home), chain_of(is_upper_half ? home + next_region : home - next_region)};
  }

  // The first match in list order of two chains, or `none`.
  [[gnu::noinline]] std::uint32_t search(std::uint32_t home, std::uint32_t neighbour,
                                         std::uint64_t key, long long addr) const {
    if (match_span_ == 0) return none;
    const std::uint32_t here = first_match(home, key, addr, oldest);
    const std::uint32_t beside = first_match(neighbour, key, addr, entries_[here].slot);
    return beside == none ? here : beside;
  }

  // Takes note of the slots that `order_` gives.
  struct note_slot {
    std::vector<entry>& entries;
    void operator()(std::uint32_t id, unsigned slot) const { entries[id].slot = slot; }
  };

  // Gives a context that is to be the newest its address, and its place in the table.
  void set_addr(std::uint32_t id, long long addr) {
    entry& e = entries_[id];
    const bool stays = region_of(addr) == region_of(e.addr);
    e.addr = addr;
    if (!stays || e.newer != none) relink(id);
  }

  [[gnu::noinline]] void relink(std::uint32_t id) {
    unlink(id);
    link(id);
  }

  void link(std::uint32_t id) {
    entry& e = entries_[id];
    e.chain = chain_of(hash(e.key, region_of(e.addr)));
    e.newer = none;
    e.older = chains_[e.chain];
    entries_[e.older].newer = id;  // `none` takes any
    chains_[e.chain] = id;
  }

  void unlink(std::uint32_t id) {
    const entry& e = entries_[id];
    (e.newer == none ? chains_[e.chain] : entries_[e.newer].older) = e.older;
    entries_[e.older].newer = e.newer;
  }

  // Makes four times as many chains, and links the contexts again, oldest first.
  void rehash() {
    chain_shift_ -= 2;
    chains_.assign(std::size_t{1} << (64 - chain_shift_), none);
    order_.from_oldest([this](std::uint32_t id) { link(id); });
  }

  unsigned max_contexts_;
  long long reach_;           // furthest distance that matches, and
  std::uint64_t match_span_;  // the number of distances that do, in both directions and none
  int region_bits_;
  int chain_shift_ = 64 - 6;  // rehash() makes it 64 less the bits of a chain number
  recency_log order_;
  std::vector<entry> entries_;         // by id
  std::vector<std::uint32_t> chains_;  // ids of the newest in each
};

}  // namespace vqpack::detail
