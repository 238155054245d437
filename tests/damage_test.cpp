// Damaged QUBIX files: each is noticed, unless it still holds the same trace.
#include <gtest/gtest.h>

#include <cstring>

#include "support.h"

namespace {

// A bit of everything that records are made of: new contexts, short and long deltas, repeats,
// counts, deferred replies, the highest and lowest addresses, agents around the escape.
trace small_trace(coding c) {
  const int far_agent = c.wide_agents() ? 65535 : 255;
  trace result = {{28, 0x1000, 3, 1},      {28, 0x1040, 3, 2},   {28, 0x1080, 3, 3},
                  {28, 0x10C0, 3, 0},      {28, 0x1100, 3, 70},  {1, -8, far_agent, 1},
                  {1, 0, far_agent, ~0u},  {28, 0x1108, 3, 1},   {28, 0x2000, 3, 1},
                  {47, 0xFF0000, 0, 1},    {1, 1LL << 62, 0, 1}, {1, 8, far_agent, 1},
                  {1, 1LL << 62 | 8, 0, 9}};
  for (transaction& t : result)
    if (!c.four_field()) t.count = 1;
  return result;
}

char* owned(const char* text) { return std::strcpy(new char[std::strlen(text) + 1], text); }

struct sample {
  coding c;
  bool lists;  // the header holds some of every kind
  trace transactions;
  bytes file;
};

std::ostream& operator<<(std::ostream& out, const sample& s) {
  return out << s.c << (s.lists ? " with lists" : "");
}

sample make_sample(coding c, bool lists) {
  sample s{c, lists, small_trace(c), {}};
  s.file = encode(s.transactions, c);
  if (!lists) return s;
  PRUV_header_t h;
  h.version = c.version;
  h.compression = c.compressed;
  h.trans_count = static_cast<long long>(s.transactions.size());
  h.max_contexts = 3;
  h.extra_shorts_1 = new short[2]{1, -2};
  h.extra_shorts_1_count = 2;
  h.extra_strings = new char* [2] { owned("a"), owned("") };
  h.extra_string_count = 2;
  h.sensitivity = new sensitivity_point_t[1]{{1, 2, 3, 4, 5, 6, 7}};
  h.sensitivity_count = 1;
  h.comment = owned("hi");
  const char* const no_names[48] = {};
  h.trans_names = no_names;
  h.trans_name_count = 48;
  int size;
  const std::unique_ptr<unsigned char[]> header(VQcomp::pruv_header_struct_to_bytes(h, size));
  s.file.erase(s.file.begin() + 3, s.file.begin() + std::ptrdiff_t(preamble_size(c)));
  s.file.insert(s.file.begin() + 3, header.get(), header.get() + size);
  return s;
}

std::vector<sample> all_samples() {
  std::vector<sample> samples;
  for (const coding c : all_codings)
    for (const bool lists : {false, true})
      if (!lists || c.version >= 2) samples.push_back(make_sample(c, lists));
  return samples;
}

decoded decode_at_once(const bytes& file) {
  return decode(
      file, [] { return 1 << 16; }, 64, 64);
}

bool is_prefix(const trace& part, const trace& whole) {
  return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

TEST(Damage, EveryTruncationIsNoticed) {
  for (const sample& s : all_samples())
    for (auto end = s.file.begin(); end != s.file.end(); ++end)
      for (const int chunk : {1 << 16, 7}) {
        const decoded read = decode(bytes(s.file.begin(), end), [=] { return chunk; });
        ASSERT_TRUE(read.error.starts_with("Input ends early") ||
                    read.error.starts_with("QUBIX file ends prematurely") ||
                    read.error.starts_with("Not enough in first block for header"))
            << s << " of " << end - s.file.begin() << " bytes: " << read.error;
        ASSERT_TRUE(is_prefix(read.transactions, s.transactions))
            << s << " of " << end - s.file.begin() << " bytes";
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

TEST(Damage, EveryChangeOfAByteIsNoticedOrHarmless) {
  for (sample& s : all_samples()) {
    int unnoticed = 0;
    for (unsigned char& byte : s.file) {
      const unsigned char good = byte;
      for (int change = 1; change < 256; ++change) {
        byte = static_cast<unsigned char>(good ^ change);
        const decoded read = decode_at_once(s.file);
        if (!read.error.empty()) continue;
        ++unnoticed;
        ASSERT_TRUE(read.transactions == s.transactions)
            << s << " byte " << &byte - s.file.data() << " changed by " << change;
      }
      byte = good;
    }
    EXPECT_EQ(unnoticed, free_changes(s.c)) << s;
  }
}

// A number in pieces was taken together with what an earlier refill had left in the buffer.
TEST(Damage, ChunksDoNotMatterForMillionsOfBytes) {
  const coding c{1, true};
  const trace transactions = small_trace(c);
  bytes file = encode(transactions, c);
  file.insert(file.end() - std::ptrdiff_t(end_size(c)) + 1, 9000000, 0);
  for (const int chunk : {1024, 1025, 1 << 16})
    EXPECT_TRUE(decode(file, [=] { return chunk; }) == (decoded{transactions, ""})) << chunk;
}

}  // namespace
