// The caches of vqtrace and its count of lines, against the same in their plainest forms.
#include "trace/cache.h"

#include <gtest/gtest.h>

#include <list>
#include <map>
#include <random>
#include <set>

#include "trace/command_error.h"
#include "trace/distinct.h"

using namespace vqtrace;

namespace {

struct plain_line {
  std::uint64_t number;
  bool modified;
};

// A list a set, the latest use first; and the level after it.
struct plain_cache {
  std::uint64_t sets;
  std::size_t ways;
  plain_cache* next;  // null: the bus
  std::string& bus;   // "R12 W13 ": lines read and written back
  std::map<std::uint64_t, std::list<plain_line>> lists{};

  // Whether the line was there.
  bool use(std::uint64_t line, bool modified, bool whole) {
    std::list<plain_line>& set = lists[line % sets];
    for (auto one = set.begin(); one != set.end(); ++one) {
      if (one->number != line) continue;
      one->modified |= modified;
      set.splice(set.begin(), set, one);
      return true;
    }
    if (!whole) pass(line, false);
    set.push_front({line, modified});
    if (set.size() > ways) {
      const plain_line last = set.back();
      set.pop_back();
      if (last.modified) pass(last.number, true);
    }
    return false;
  }

  void pass(std::uint64_t line, bool writes) {
    if (next)
      next->use(line, writes, writes);
    else
      bus += (writes ? 'W' : 'R') + std::to_string(line) + ' ';
  }
};

// The levels of a hierarchy, the two first ones at the end.
std::list<plain_cache> plain_levels(const std::vector<cache_level::shape>& shapes,
                                    std::string& bus) {
  std::list<plain_cache> levels;
  plain_cache* next = nullptr;
  for (std::size_t i = shapes.size(); i-- > 0;) {
    levels.push_back({shapes[i].size / 64 / shapes[i].ways, shapes[i].ways, next, bus});
    if (i > 0) next = &levels.back();
  }
  levels.push_back(levels.back());
  return levels;
}

TEST(Caches, PassWhatPlainListsPass) {
  for (const char* const text : {"1K:1", "4K:4", "512:8,2K:2", "1K:4,2K:8,16K:4"}) {
    const auto shapes = parse_caches(text, 64);
    cache_hierarchy caches(shapes, 64);
    std::string bus, wanted;
    std::list<plain_cache> plain = plain_levels(shapes, wanted);
    plain_cache &instructions = plain.back(), &data = *std::prev(plain.end(), 2);

    std::mt19937 random(5);
    std::size_t instruction_misses = 0;
    for (int i = 0; i < 20000; ++i) {
      const auto kind = access_kind(random() % 4);
      const std::uint64_t first = random() % 300 * (random() % 3), last = first + random() % 8 / 7;
      caches.use(
          kind, first, last, [&](std::uint64_t line) { bus += 'R' + std::to_string(line) + ' '; },
          [&](std::uint64_t line) { bus += 'W' + std::to_string(line) + ' '; });
      const bool modifies = kind == access_kind::store || kind == access_kind::modify;
      bool hit = true;
      for (std::uint64_t line = first; line <= last; ++line)
        hit &= (kind == access_kind::fetch ? instructions : data).use(line, modifies, false);
      instruction_misses += kind == access_kind::fetch && !hit;
      ASSERT_EQ(bus, wanted) << text << ", access " << i;
      bus.clear();
      wanted.clear();
    }
    EXPECT_NE(caches.statistics().find(" " + std::to_string(instruction_misses) + " misses"),
              std::string::npos);
  }
}

TEST(Caches, RefuseShapesThatCannotBe) {
  for (const char* const text : {"", "32K", "32K:0", "32K:3", "48K:8", "32:8", "32K:8,", ",32K:8",
                                 "32K:8;", "32G:8", "99999999999999999999:1", "none,1K:2"})
    EXPECT_THROW(parse_caches(text, 64), command_error) << text;
  EXPECT_EQ(parse_caches("48K:12,2M:16", 64)[1].size, 2U << 20);
}

TEST(DistinctLines, AreExactAndThenEstimated) {
  std::mt19937_64 random(7);
  distinct_lines some, many;
  std::set<std::uint64_t> wanted;
  for (int i = 0; i < 200000; ++i) {
    const std::uint64_t line = i % 2 ? random() >> random() % 60 >> 6 : std::uint64_t(i / 10);
    some.add(line);
    wanted.insert(line);
    ASSERT_EQ(some.size(), wanted.size());
  }
  // Each in a group of its own; some of them twice.
  constexpr std::uint64_t size = 3000000;
  for (std::uint64_t i = 0; i < size + 1000; ++i) many.add(i % size << 20);
  EXPECT_FALSE(many.is_exact());
  EXPECT_NEAR(double(many.size()), double(size), 0.02 * size);
}

}  // namespace
