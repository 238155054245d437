// Raw records, and the end of a file with its checksum in the plainest form.
#include <gtest/gtest.h>

#include "support.h"

namespace {

// The coder takes several transactions at once, after others that left something in the register.
TEST(Checksum, StandsAtTheEndOfAFile) {
  std::mt19937_64 random(2);
  for (const coding c : all_codings)
    for (const unsigned size : {0u, 1u, 2u, 3u, 64u, 333u}) {
      trace transactions(size);
      bytes image;
      const auto put = [&](unsigned long long value, int bytes) {
        for (; bytes > 0; --bytes, value >>= 8) image.push_back(static_cast<unsigned char>(value));
      };
      for (transaction& t : transactions) {
        t = {velk_trans_class(random() % 47), static_cast<long long>(random()) & ~7LL,
             int(random() & (c.wide_agents() ? 0xFFFF : 0xFF)),
             c.four_field() ? unsigned(random()) : 1};
        put(t.trans, 1);
        put(unsigned(t.agent), c.wide_agents() ? 2 : 1);
        put(static_cast<unsigned long long>(t.addr), 8);
        if (c.four_field()) put(t.count, 4);
      }
      const bytes file = encode(transactions, c, {.block_size = 65536, .batch = size});
      const unsigned crc = plain_checksum(image, true);
      bytes end = from_hex(c.compressed ? "30 00 80" : "FF");
      for (int shift = 24; shift >= 0; shift -= 8)
        end.push_back(static_cast<unsigned char>(crc >> shift));
      if (!c.compressed) end.insert(end.begin(), image.begin(), image.end());
      if (c.version < 2)
        end.insert(end.end(),
                   {static_cast<unsigned char>(size), static_cast<unsigned char>(size >> 8), 0, 0});
      EXPECT_TRUE(std::equal(end.rbegin(), end.rend(), file.rbegin())) << c << " of " << size;
      EXPECT_TRUE(decode(file) == (decoded{transactions, ""})) << c << " of " << size;
    }
}

}  // namespace
