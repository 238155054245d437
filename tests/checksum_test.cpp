// The checksum at the end of a file, against that of the plainest form.
#include <gtest/gtest.h>

#include "support.h"

namespace {

// Several transactions at once, after others that left something in the register.
TEST(Checksum, IsThatOfTheTransactions) {
  std::mt19937_64 random(2);
  for (const coding c : all_codings)
    for (const std::size_t size : {0u, 1u, 2u, 3u, 64u, 333u}) {
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
      const unsigned crc = plain_checksum(image, true);
      const bytes file = encode(transactions, c, {.block_size = 65536, .batch = size});
      const auto stored = file.end() - (c.version < 2 ? 8 : 4);
      EXPECT_EQ(unsigned(stored[0] << 24 | stored[1] << 16 | stored[2] << 8 | stored[3]), crc)
          << c << " of " << size;
      EXPECT_TRUE(decode(file) == (decoded{transactions, ""})) << c << " of " << size;
    }
}

}  // namespace
