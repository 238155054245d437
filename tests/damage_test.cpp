// Damaged QUBIX files: each is noticed, unless it still holds the same trace.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include "support.h"

namespace {

struct sample {
  std::string name;
  coding c;
  bytes file;
  trace transactions;
};

decoded decode_at_once(const bytes& file) { return decode(file, 1 << 16, 64, 64); }

// Seeds of the fuzz target, one of each type and coding without lists in the header and one with.
// They hold a bit of everything that records are made of: new contexts, short and long deltas,
// repeats, counts, deferred replies, the highest and lowest addresses, agents around the escape.
std::vector<sample> all_samples() {
  std::vector<sample> samples;
  for (const auto& entry : std::filesystem::directory_iterator(SEEDS "/decode")) {
    const std::string name = entry.path().filename();
    if (!name.starts_with("type-")) continue;
    std::ifstream from(entry.path(), std::ios::binary);
    from.ignore(2);
    const bytes file{std::istreambuf_iterator<char>(from), {}};
    const decoded whole = decode_at_once(file);
    EXPECT_TRUE(whole.error.empty() && whole.transactions.size() == 13) << name << whole.error;
    const coding c{file[2], name.find("coded") != name.npos};
    samples.push_back({name, c, file, whole.transactions});
  }
  EXPECT_EQ(samples.size(), 18u);
  return samples;
}

TEST(Damage, EveryTruncationIsNoticed) {
  for (const sample& s : all_samples())
    for (std::size_t size = 0; size < s.file.size(); ++size)
      for (const int chunk : {1 << 16, 7}) {
        const bytes start(s.file.begin(), s.file.begin() + std::ptrdiff_t(size));
        const decoded read = decode(start, chunk);
        ASSERT_TRUE(read.error.starts_with("Input ends early") ||
                    read.error.starts_with("QUBIX file ends prematurely") ||
                    read.error.starts_with("Not enough in first block for header"))
            << s.name << " of " << size << " bytes: " << read.error;
        ASSERT_TRUE(
            std::equal(read.transactions.begin(), read.transactions.end(), s.transactions.begin()))
            << s.name << " of " << size << " bytes";
      }
}

// Changes of one byte after which a file still holds the same trace.
int free_changes(coding c) {
  int changes = 0;
  // A stored count of 0 is not compared.
  if (c.version < 2) changes += 1;
  // The upper halves of the totals of instructions and cycles, which no CRC covers.
  if (c.version >= 4) changes += 2 * 4 * 255;
  if (c.compressed) {
    // Of the end marker's first byte, four bits of an address and two of a repeat count.
    changes += (1 << 6) - 1;
    // Of the last byte of an address of 64 bits (-8), six bits beyond them.
    changes += (1 << 6) - 1;
    // Of the last byte of a count of 32 bits, three bits beyond them.
    if (c.four_field()) changes += (1 << 3) - 1;
  }
  return changes;
}

// The sanitizers take ten times as long, and see every byte with some of the changes.
#ifdef __SANITIZE_ADDRESS__
constexpr int step = 8;
#else
constexpr int step = 1;
#endif

TEST(Damage, EveryChangeOfAByteIsNoticedOrHarmless) {
  for (sample& s : all_samples()) {
    int unnoticed = 0;
    for (unsigned char& byte : s.file) {
      const unsigned char good = byte;
      for (int change = 1; change < 256; change += step) {
        byte = static_cast<unsigned char>(good ^ change);
        const decoded read = decode_at_once(s.file);
        if (!read.error.empty()) continue;
        ++unnoticed;
        ASSERT_TRUE(read.transactions == s.transactions)
            << s.name << " byte " << &byte - s.file.data() << " changed by " << change;
      }
      byte = good;
    }
    if (step == 1) {
      EXPECT_EQ(unnoticed, free_changes(s.c)) << s.name;
    }
  }
}

}  // namespace
