// The caches between a processor and its bus.
#pragma once

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "trace/access.h"

namespace vqtrace {

// One cache: write-back, and the line that was used least recently goes first.
class cache_level {
 public:
  struct shape {
    std::uint64_t size;  // bytes
    unsigned ways;       // 1 or more; `size` is a power of two of sets of so many lines
  };
  struct counters {
    std::uint64_t accesses = 0, misses = 0;
    std::uint64_t write_backs = 0;  // modified lines that went
  };

  // `line` is in bytes, a power of two.
  cache_level(shape wanted, unsigned line)
      : ways_(wanted.ways),
        set_mask_(wanted.size / line / wanted.ways - 1),
        entries_(wanted.size / line, nothing) {}

  // What a use of a line did: it was there; or it came, and a modified line went for it, or none.
  struct outcome {
    bool hit;
    bool has_victim;
    std::uint64_t victim;
  };

  // Uses a line, by its number: byte address / line size. It becomes modified if that is said.
  outcome use(std::uint64_t line, bool modified) {
    std::uint64_t* const set = &entries_[(line & set_mask_) * ways_];
    if (set[0] >> 1 == line) {
      set[0] |= modified;
      return {true, false, 0};
    }
    std::uint64_t* found = set + 1;
    std::uint64_t* const last = set + ways_ - 1;
    while (found < last && *found >> 1 != line) ++found;
    found = std::min(found, last);
    const std::uint64_t entry = *found;
    const bool hit = entry >> 1 == line;
    std::copy_backward(set, found, found + 1);
    set[0] = (hit ? entry : line << 1) | modified;
    return {hit, !hit && entry != nothing && (entry & 1) != 0, entry >> 1};
  }

  counters counts;

 private:
  // No line has this number: a line has 8 bytes at least.
  static constexpr std::uint64_t nothing = ~std::uint64_t{0};

  unsigned ways_;
  std::uint64_t set_mask_;
  std::vector<std::uint64_t> entries_;  // sets, the latest use first: line number * 2 + modified
};

// Caches as "32K:8,1M:16" has them, sizes with ways; of sizes K and M are 1024 and 1048576 bytes.
// None for "none". Throws `command_error` for anything else, and for a level that does not have a
// power of two of sets of lines of `line` bytes.
std::vector<cache_level::shape> parse_caches(const std::string& text, unsigned line);

// Levels of caches. The first is there twice, for instructions and for data; the others hold both.
// A line that is written allocates; one that is written back allocates without being read. What a
// level holds may but need not be in the next.
class cache_hierarchy {
 public:
  // The first of the shapes is that of the two first caches.
  cache_hierarchy(const std::vector<cache_level::shape>& shapes, unsigned line) {
    levels_.emplace_back(shapes.front(), line);
    for (const cache_level::shape& shape : shapes) levels_.emplace_back(shape, line);
  }

  // One access to the lines from `first` to `last`. Calls read(line) and write_back(line) for what
  // passes the last level, in order.
  template <class Read, class WriteBack>
  void use(access_kind kind, std::uint64_t first, std::uint64_t last, Read read,
           WriteBack write_back) {
    cache_level& level = levels_[kind != access_kind::fetch];
    const bool modified = kind == access_kind::store || kind == access_kind::modify;
    bool missed = false;
    for (std::uint64_t line = first; line <= last; ++line) {
      const cache_level::outcome found = level.use(line, modified);
      if (found.hit) continue;
      missed = true;
      bring(2, line, read, write_back);
      if (found.has_victim) {
        ++level.counts.write_backs;
        take_back(2, found.victim, read, write_back);
      }
    }
    ++level.counts.accesses;
    level.counts.misses += missed;
  }

  // One line a cache, for people: "I1: 1234 accesses, 56 misses, 7 write-backs". An access to
  // several lines counts once in the first level.
  std::string statistics() const;

 private:
  template <class Read, class WriteBack>
  void bring(std::size_t at, std::uint64_t line, Read read, WriteBack write_back) {
    if (at == levels_.size()) return read(line);
    const cache_level::outcome found = look_up(at, line, false);
    if (!found.hit) bring(at + 1, line, read, write_back);
    if (found.has_victim) take_back(at + 1, found.victim, read, write_back);
  }

  template <class Read, class WriteBack>
  void take_back(std::size_t at, std::uint64_t line, Read read, WriteBack write_back) {
    if (at == levels_.size()) return write_back(line);
    const cache_level::outcome found = look_up(at, line, true);
    if (found.has_victim) take_back(at + 1, found.victim, read, write_back);
  }

  cache_level::outcome look_up(std::size_t at, std::uint64_t line, bool modified) {
    const cache_level::outcome found = levels_[at].use(line, modified);
    cache_level::counters& counts = levels_[at].counts;
    ++counts.accesses;
    counts.misses += !found.hit;
    counts.write_backs += found.has_victim;
    return found;
  }

  std::vector<cache_level> levels_;
};

}  // namespace vqtrace
