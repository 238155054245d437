// Stop-bit numbers and the checksum.
#include <gtest/gtest.h>

#include <climits>

#include "coder/checksum.h"
#include "coder/stop_bit.h"
#include "support.h"

using namespace vqpack::detail;

namespace {

template <class Number, class Put, class Get>
void expect_bytes(Number value, const char* stored, Put put, Get get) {
  bytes room(16);
  room.resize(std::size_t(put(room.data(), value) - room.data()));
  EXPECT_EQ(room, from_hex(stored)) << value;
  const unsigned char* from = room.data();
  EXPECT_EQ(get(from), value);
  EXPECT_EQ(from, room.data() + room.size());
}

TEST(StopBit, BytesOfNumbersAndBack) {
  const auto get = [](const unsigned char*& from) {
    return get_stop_bit<unsigned long long>(from);
  };
  const std::pair<unsigned long long, const char*> rows[] = {
      {0, "80"},
      {127, "FF"},
      {128, "00 81"},
      {16383, "7F FF"},
      {16384, "00 00 81"},
      {UINT_MAX, "7F 7F 7F 7F 8F"},
      {ULLONG_MAX, "7F 7F 7F 7F 7F 7F 7F 7F 7F 81"}};
  for (const auto& [value, stored] : rows) expect_bytes(value, stored, put_stop_bit, get);
  const std::pair<long long, const char*> signed_rows[] = {
      {0, "80"},
      {63, "BF"},
      {64, "40 80"},
      {-1, "FF"},
      {-64, "C0"},
      {-65, "3F FF"},
      {8190, "7E BF"},
      {LLONG_MAX, "7F 7F 7F 7F 7F 7F 7F 7F 7F 80"},
      {LLONG_MIN, "00 00 00 00 00 00 00 00 00 FF"}};
  for (const auto& [value, stored] : signed_rows)
    expect_bytes(value, stored, put_signed_stop_bit, get_signed_stop_bit);
}

TEST(StopBit, BitsBeyondTheWidthAreDropped) {
  const bytes narrow = from_hex("01 00 00 00 70 7F 81");
  const unsigned char* from = narrow.data();
  EXPECT_EQ(get_stop_bit<unsigned>(from), 1u);
  EXPECT_EQ(from, narrow.data() + narrow.size());
  const bytes wide = from_hex("02 00 00 00 00 00 00 00 00 7E 7F 7F 81");
  from = wide.data();
  EXPECT_EQ(get_stop_bit<unsigned long long>(from), 2u);
  const bytes minus = from_hex("70 7F 7F 7F 7F 7F 7F 7F 7F 7F 7F 7F FF");
  from = minus.data();
  EXPECT_EQ(get_signed_stop_bit(from), -16);
  EXPECT_EQ(from, minus.data() + minus.size());
}

TEST(Checksum, KnownValues) {
  checksum crc;
  crc.fold(reinterpret_cast<const unsigned char*>("123456789"), 9);
  EXPECT_EQ(crc.value(), 0xCCBD34E2u);
  crc.close();
  EXPECT_EQ(crc.value(), 0x89A1897Fu);
}

TEST(Checksum, IsThatOfTheBitwiseForm) {
  std::mt19937 random(1);
  for (std::size_t size : {1u, 4u, 5u, 300u}) {
    bytes data(size);
    for (auto& byte : data) byte = static_cast<unsigned char>(random());
    checksum crc;
    crc.fold(data.data(), data.size());
    EXPECT_EQ(crc.value(), plain_checksum(data, false)) << size;
    crc.close();
    EXPECT_EQ(crc.value(), plain_checksum(data, true)) << size;
  }
}

// Several at once, after others that left something in the register.
TEST(Checksum, TransactionsAreFoldedAsTheirBytes) {
  std::mt19937_64 random(2);
  for (const bool wide_agents : {false, true})
    for (const bool counted : {false, true}) {
      checksum crc, by_bytes;
      for (const std::size_t size : {0u, 1u, 2u, 3u, 64u}) {
        std::vector<VQtransaction> transactions(size);
        for (VQtransaction& t : transactions) {
          t = {static_cast<long long>(random()), int(random()), unsigned(random()),
               velk_trans_class(random())};
          by_bytes.fold(t.trans);
          wide_agents ? by_bytes.fold_le<2>(unsigned(t.agent))
                      : by_bytes.fold_le<1>(unsigned(t.agent));
          by_bytes.fold_le<8>(static_cast<unsigned long long>(t.addr));
          if (counted) by_bytes.fold_le<4>(t.count);
        }
        crc.fold(transactions.data(), size, wide_agents, counted);
        EXPECT_EQ(crc.value(), by_bytes.value()) << size << wide_agents << counted;
      }
    }
}

}  // namespace
