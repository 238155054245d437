// The two sides' lists of contexts, against lists that are walked.
#include <gtest/gtest.h>

#include <ext/pb_ds/assoc_container.hpp>
#include <ext/pb_ds/tree_policy.hpp>

#include "coder/context_list.h"
#include "coder/inslist.h"
#include "support.h"

using namespace vqpack::detail;

namespace {

// What context_list does, in its plainest form.
class plain_contexts {
 public:
  plain_contexts(std::size_t most, long long window) : most_(most), window_(window) {}

  int touch(const VQcomp::context& wanted, long long& prev) {
    for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
      if (entry->trans != wanted.trans || entry->agent != wanted.agent ||
          std::abs(entry->addr - wanted.addr) >= window_)
        continue;
      const int position = int(entry - entries_.begin());
      prev = entry->addr;
      std::rotate(entries_.begin(), entry, entry + 1);
      entries_.front() = wanted;
      return position;
    }
    entries_.insert(entries_.begin(), wanted);
    if (entries_.size() > most_) entries_.pop_back();
    return -1;
  }
  std::size_t size() const { return entries_.size(); }

 private:
  std::vector<VQcomp::context> entries_;
  std::size_t most_;
  long long window_;
};

using source = VQcomp::context (*)(std::mt19937_64& random);

void compare(const char* what, source next, unsigned most, long long window, int steps) {
  std::mt19937_64 random(most + static_cast<unsigned long long>(window));
  context_list tested(most, window);
  plain_contexts plain(most, window);
  for (int i = 0; i < steps; ++i) {
    const VQcomp::context wanted = next(random);
    long long prev = -1, plain_prev = -1;
    const int position = tested.touch(wanted, prev),
              plain_position = plain.touch(wanted, plain_prev);
    ASSERT_TRUE(position == plain_position && prev == plain_prev && tested.size() == plain.size())
        << what << ", limit " << most << ", window " << window << ", step " << i << ": " << position
        << " for " << plain_position << ", " << prev << " for " << plain_prev;
  }
}

long long below(std::mt19937_64& random, long long bound) {
  return static_cast<long long>(random() % static_cast<unsigned long long>(bound));
}

constexpr long long units = 1LL << 61;  // addresses in 8-byte units are below this
constexpr long long windows[] = {0, 1, 2, 3, 64, 8191, 8192, 1LL << 29, 1LL << 57, units};

const struct {
  const char* what;
  source next;
  int steps;
} kinds[] = {
    {"few contexts that move",
     [](auto& random) {
       return VQcomp::context{below(random, 40000), int(below(random, 2)),
                              velk_trans_class(below(random, 3))};
     },
     1500},
    {"addresses near one another, several within the window",
     [](auto& random) {
       return VQcomp::context{500000 + below(random, 40) * below(random, 400), 7, 28};
     },
     1500},
    {"both ends of the address space, where differences are largest",
     [](auto& random) {
       const long long addr = below(random, 20000);
       return VQcomp::context{random() & 1 ? units - 1 - addr : addr, int(below(random, 2)), 4};
     },
     1500},
    {"multiples of the window and their neighbours",
     [](auto& random) {
       return VQcomp::context{below(random, 30) * 8191 + below(random, 3),
                              int(below(random, 2)) * 65535, 67};
     },
     1500},
    {"addresses anywhere",
     [](auto& random) {
       return VQcomp::context{static_cast<long long>(random() >> (3 + random() % 50)),
                              int(below(random, 300)), 28};
     },
     1500},
};

TEST(ContextList, IsThePlainList) {
  for (const auto& kind : kinds)
    for (const long long window : windows)
      for (const unsigned most : {1u, 2u, 3u, 64u, 1000u, ~0u})
        compare(kind.what, kind.next, most, window, kind.steps);
}

TEST(ContextList, IsThePlainListForThousandsOfContexts) {
  for (const unsigned most : {1000u, 16383u})
    compare(
        "thousands",
        [](auto& random) {
          const long long page = below(random, 1 + below(random, 4000));
          return VQcomp::context{page * 9000 + below(random, 500), int(page % 5),
                                 velk_trans_class(page % 3)};
        },
        most, 8191, 12000);
}

// Too many to walk: a context's position is the number of contexts that were used later.
TEST(ContextList, PositionsAmongAHundredThousand) {
  using uses = __gnu_pbds::tree<int, __gnu_pbds::null_type, std::less<>, __gnu_pbds::rb_tree_tag,
                                __gnu_pbds::tree_order_statistics_node_update>;
  for (const unsigned most : {70000u, ~0u}) {
    std::mt19937 random(most);
    context_list tested(most, 8);
    uses times;                           // of the latest use of each context held
    std::vector<int> latest(100000, -1);  // by context; -1: not held
    std::vector<std::size_t> used;        // the context, by time
    for (int time = 0; time < 150000; ++time) {
      const std::size_t context = random() % latest.size();
      const int before = latest[context];
      const int position = before < 0 ? -1 : int(times.size() - 1 - times.order_of_key(before));
      const VQcomp::context wanted{static_cast<long long>(context) * 1000, int(context % 7), 28};
      tested.prepare(1, [&](std::size_t) { return wanted; });
      long long prev;
      ASSERT_EQ(tested.touch(wanted, prev), position) << time;
      if (before >= 0) times.erase(before);
      times.insert(latest[context] = time);
      used.push_back(context);
      if (times.size() <= most) continue;
      latest[used[std::size_t(*times.begin())]] = -1;
      times.erase(times.begin());
    }
    EXPECT_EQ(tested.size(), times.size());
  }
}

// Inserts and lookups at random, of which some hit the blocks' borders. The oldest 64 elements go
// when a block is recycled.
void play(unsigned max_blocks, int inserts_of_100, int steps) {
  std::mt19937 random(max_blocks);
  inslist<int> tested;
  tested.max_blocks = max_blocks;
  std::vector<int> plain;  // back to front
  for (unsigned i = 0, inserted = 0; i < unsigned(steps); ++i) {
    if (plain.empty() || int(random() % 100) < inserts_of_100) {
      if (inserted % 64 == 0 && plain.size() == max_blocks * 64ull)
        plain.erase(plain.begin(), plain.begin() + 64);
      plain.push_back(int(inserted++));
      EXPECT_EQ(*tested.insert(plain.back()), plain.back());
      continue;
    }
    const unsigned held = unsigned(plain.size());
    unsigned index = unsigned(random() % held);
    if (random() % 3 == 0)
      index = std::min(held - 1, unsigned(inserted % 64 + random() % 3 * 64 + random() % 2));
    const auto place = plain.end() - 1 - index;
    const int wanted = *place;
    std::rotate(place, place + 1, plain.end());
    ASSERT_EQ(*tested.lookup(index), wanted) << "index " << index << " of " << held;
    try {
      tested.lookup(held);
      ADD_FAILURE() << "found element " << held << " of " << held;
    } catch (const bool value) {
      EXPECT_TRUE(value);
    }
  }
}

TEST(Inslist, IsThePlainList) {
  play(0x4000001, 3, 20000);
  play(2, 30, 20000);
  play(3, 60, 20000);
  play(5, 10, 20000);
}

TEST(Inslist, RefusesIndexesAboveTheHighest) {
  inslist<int> list;
  EXPECT_THROW(list.lookup(0), bool);
  for (int i = 0; i < 3; ++i) list.insert(i);
  list.max_index = 1;
  EXPECT_EQ(*list.lookup(1), 1);
  EXPECT_THROW(list.lookup(2), bool);
}

}  // namespace
