// Memory that runs out: std::bad_alloc comes through, and everything can still be destroyed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "support.h"

static int good_allocations = -1;  // before those that fail; negative: none fails
static bool only_one_fails;

[[gnu::noinline]] void* operator new(std::size_t size) {
  if (good_allocations == 0 || (good_allocations > 0 && --good_allocations == 0)) {
    if (only_one_fails) good_allocations = -1;
    throw std::bad_alloc();
  }
  if (void* const memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { operator delete(memory); }
void operator delete[](void* memory, std::size_t) noexcept { operator delete(memory); }

namespace {

bool comes_back(const trace& transactions, coding c) {
  const file_ptr file(std::tmpfile());
  const auto header = make_header(c, transactions);
  header->comment = new char[3]{"hi"};
  header->extra_strings = new char* [2] {};
  header->extra_string_count = 2;
  header->extra_shorts_1 = new short[2]{};
  header->extra_shorts_1_count = 2;
  VQcomp coder(file.get(), c.version, header.get(), 84, 65535);
  for (const transaction& t : transactions) coder.record(t.trans, t.addr, t.agent, t.count);
  coder.finish(file.get(), header.get());
  std::rewind(file.get());
  return read_all(file.get(), 5000) == decoded{transactions, ""};
}

TEST(Memory, RunsOutAtAnyAllocation) {
  for (const coding c : {coding{1, true}, coding{5, true}, coding{4, false}})
    for (const bool once : {true, false}) {
      const trace transactions = random_trace(3, 3000, c);
      int failures = 0;
      for (bool failed = true; failed; failures += failed) {
        only_one_fails = once;
        good_allocations = failures + 1;
        try {
          failed = !comes_back(transactions, c);
        } catch (const std::bad_alloc&) {
        }
        good_allocations = -1;
        ASSERT_LT(failures, 1000);
      }
      EXPECT_GT(failures, 20);
    }
}

}  // namespace
