// The PRUV header's bytes.
#include <gtest/gtest.h>

#include <cstring>

#include "support.h"

namespace {

using header_ptr = std::unique_ptr<PRUV_header_t>;

char* owned(const std::string& text) {
  return std::strcpy(new char[text.size() + 1], text.c_str());
}

// A small header of file type 2 or 4; that of type 4 has a comment and a context limit.
header_ptr small_header(int version) {
  auto h = std::make_unique<PRUV_header_t>();
  h->compression = 1;
  h->version = version;
  if (version == 4) {
    h->comment = owned("hi");
    h->max_contexts = 16383;
  }
  return h;
}

bytes to_bytes(PRUV_header_t& h) {
  int size;
  const std::unique_ptr<unsigned char[]> encoded(VQcomp::pruv_header_struct_to_bytes(h, size));
  return bytes(encoded.get(), encoded.get() + size);
}

header_ptr from_bytes(const bytes& encoded, int version) {
  const bytes body(encoded.begin() + 2, encoded.end());  // an allocation that ends where it does
  return header_ptr(
      VQuncomp::pruv_header_bytes_to_struct(body.data(), int(body.size()), version, 5));
}

// No two fields hold the same value, so that each must stand in its place. The CRC is that of the
// image, in which the fields are wider.
TEST(Header, EveryFieldHasItsPlace) {
  const bytes stored = from_hex(
      "5C 00 02 01 06 05 04 03 08 07 09 0A 0B 13 12 11 10 17 16 15 14 23 22 21 20 27 26 25 24 "
      "33 32 31 30 37 36 35 34 00 00 00 00 0C FF B3 3C 28 02 FE FF 34 12 02 4E 31 00 00 01 53 00 "
      "01 07 00 01 41 43 42 47 46 45 44 4B 4A 49 48 4F 4E 4D 4C 53 52 51 50 57 56 55 54 43 00 "
      "01 61 60 5F 5E 00");
  const header_ptr h = from_bytes(stored, 5);
  EXPECT_EQ(to_bytes(*h), stored);
  EXPECT_EQ(h->threads, 0x102u);
  EXPECT_EQ(h->cycle_count, 0x3435363730313233);
  EXPECT_STREQ(h->trans_names[0], "N1");
  EXPECT_EQ(h->sensitivity[0].llc_misses, 0x54555657u);

  // Header type 1 cuts off all totals once one of them is negative.
  h->max_contexts = 0;
  h->inst_count = -1;
  h->version = 2;
  const header_ptr small = from_bytes(to_bytes(*h), 3);
  EXPECT_EQ(small->trans_count, 0x10111213);
  EXPECT_EQ(small->inst_count, 0xFFFFFFFF);
}

TEST(Header, DecoderRefuses) {
  const std::string early = "QUBIX file ends prematurely", crc = "PRUV header has bad CRC",
                    junk = "Unknown junk at end of PRUV header";
  const struct {
    const char* what;
    int version;
    std::size_t size;   // 0: unchanged
    std::size_t place;  // of one changed byte
    unsigned char value;
    std::string error;
  } rows[] = {
      {"shorter than the fields of type 2", 2, 29, 0, 0, early + ", at byte 32"},
      {"no list at all", 2, 30, 0, 0, early},
      {"a list of shorts too long", 2, 0, 30, 255, early},
      {"a name without end", 2, 33, 31, 2, early},
      {"a sensitivity point too many", 2, 0, 34, 1, early + ", at byte 38"},
      {"a comment without end", 4, 53, 0, 0, early + ", at byte 56"},
      {"half a context limit", 4, 57, 0, 0, early + ", at byte 60"},
      {"an unknown tag", 4, 0, 54, 2, "Unknown expansion field in PRUV header, at byte 57"},
      {"a byte after the last tag", 4, 61, 0, 0, junk + ", at byte 64"},
      {"a byte after the lists", 2, 36, 0, 0, junk + ", at byte 39"},
      {"a changed comment", 4, 0, 51, 'H', crc + ", at byte 45"},
  };
  for (const auto& row : rows) {
    bytes encoded = to_bytes(*small_header(row.version));
    if (row.size) encoded.resize(row.size);
    if (row.place) encoded[row.place] = row.value;
    EXPECT_EQ(error_of([&] { from_bytes(encoded, row.version); }), row.error) << row.what;
  }
  bytes twice = to_bytes(*small_header(4));
  const bytes limit(twice.begin() + 54, twice.begin() + 59);
  twice.insert(twice.begin() + 54, limit.begin(), limit.end());
  EXPECT_EQ(error_of([&] { from_bytes(twice, 4); }), crc + ", at byte 45");
}

TEST(Header, EncoderRefusesWhatItsFieldsCannotHold) {
  using h = PRUV_header_t;
  const std::string traits =
      "Non-zero trace characteristics (capture point, gen. method, address properties "
      "unsupported now";
  const struct {
    unsigned h::*field;
    unsigned value;
    std::string error;
  } rows[] = {
      {&h::trans_set, 1, "Non-zero transaction set number unsupported now"},
      {&h::capture_point, 1, traits},
      {&h::gen_method, 1, traits},
      {&h::address_properties, 1, traits},
      {&h::threads, 65536, "PRUV header: threads above 65535"},
      {&h::line_size, 65536, "PRUV header: line size above 65535"},
      {&h::extra_byte_1, 256, "PRUV header: extra byte 1 above 255"},
      {&h::extra_byte_2, 256, "PRUV header: extra byte 2 above 255"},
      {&h::address_length, 256, "PRUV header: address length above 255"},
      {&h::compression, 256, "PRUV header: compression above 255"},
  };
  for (const auto& row : rows) {
    const header_ptr header = small_header(2);
    (*header).*row.field = row.value;
    EXPECT_EQ(error_of([&] { to_bytes(*header); }), row.error);
  }
  for (const int version : {2, 4})
    for (const auto total : {&h::trans_count, &h::inst_count, &h::cycle_count}) {
      const header_ptr header = small_header(version);
      (*header).*total = 1LL << 32;
      EXPECT_EQ(error_of([&] { to_bytes(*header); }),
                version == 4 ? "no error"
                             : "Given trans/inst/cycle count too large for this header type");
    }
  for (const int version : {1, 6})
    EXPECT_EQ(error_of([=] { to_bytes(*small_header(version)); }),
              "Internal error: header type corrupted");
}

TEST(Header, ListsHave255EntriesAtMost) {
  using h = PRUV_header_t;
  static const char* const names[256] = {};
  const std::pair<int h::*, std::string> rows[] = {{&h::extra_shorts_1_count, "extra shorts 1"},
                                                   {&h::trans_name_count, "transaction names"},
                                                   {&h::extra_string_count, "extra strings"},
                                                   {&h::extra_shorts_2_count, "extra shorts 2"},
                                                   {&h::sensitivity_count, "sensitivity points"}};
  for (const auto& [length, what] : rows)
    for (const int count : {-1, 255, 256}) {
      const header_ptr header = small_header(4);
      header->extra_shorts_1 = new short[256]{};
      header->trans_names = names;
      header->extra_strings = new char* [256] {};
      header->extra_shorts_2 = new short[256]{};
      header->sensitivity = new sensitivity_point_t[256]{};
      (*header).*length = count;
      EXPECT_EQ(error_of([&] {
                  const bytes encoded = to_bytes(*header);
                  EXPECT_EQ(to_bytes(*from_bytes(encoded, 4)), encoded);
                }),
                count < 0     ? "PRUV header: negative length of a list"
                : count > 255 ? "PRUV header: more than 255 " + what
                              : "no error");
    }
}

TEST(Header, TheSizeFieldLimitsTheComment) {
  for (const std::size_t size : {65479u, 65480u}) {
    const header_ptr h = small_header(4);
    h->comment = (delete[] h->comment, owned(std::string(size, 'c')));
    EXPECT_EQ(error_of([&] { from_bytes(to_bytes(*h), 4); }),
              size == 65480 ? "PRUV header: comment and lists above 65535 bytes" : "no error");
  }
}

}  // namespace
