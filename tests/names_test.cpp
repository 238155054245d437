// Transaction names to codes and back.
#include <gtest/gtest.h>

#include "support.h"

namespace {

TEST(Names, EveryNameGivesItsCode) {
  for (velk_trans_class trans = 0; trans < 68; ++trans)
    EXPECT_EQ(velk_trans_str2num_type1(velk_trans_num2str_type1(trans)), trans);
  EXPECT_THROW(velk_trans_num2str_type1(68), bool);
  EXPECT_THROW(velk_trans_num2str_type1(255), bool);
}

TEST(Names, CodesAndWaysAreConstants) {
  static_assert(velk_trans_code("CDRD") == 0 && velk_trans_code("WBMTOS64B") == 67);
  const auto ways = [] {
    std::string letters;
    for (int trans = 0; trans < 256; ++trans)
      letters += "-rw"[int(velk_trans_access(velk_trans_class(trans)))];
    return letters;
  }();
  std::string wanted;
  for (int sizes = 0; sizes < 5; ++sizes) wanted += "rwrwrwrw";
  EXPECT_EQ(ways, wanted + std::string(26, '-') + "ww" + std::string(188, '-'));
}

// Names that are easily taken for one another, or for a sized family.
TEST(Names, CodesOfLookalikes) {
  const std::pair<const char*, int> rows[] = {
      {"IOWR", 3},  {"IOWR_RSVD", 51}, {"RSVD", 49},      {"INT:RSVD", 45},   {"SPL:RSVD", 56},
      {"INTA", 46}, {"DEFR_RPLY", 47}, {"VXBNC64B", 65},  {"DEFR_REPLY", 48}, {"MEMRD16B", 12},
      {"SPL", 63},  {"(null)", 52},    {"WBMTOS64B", 67}, {"N4_RSVD", 53},    {"CDRD?", 32}};
  for (const auto& [name, code] : rows) EXPECT_EQ(velk_trans_str2num_type1(name), code) << name;
}

TEST(Names, FamiliesOfOneSizeTakeAllSizes) {
  const std::string families[] = {"VXB", "VXBNC", "WBMTOE", "WBMTOS"};
  for (int i = 0; i < 4; ++i)
    for (const char* size : {"", "16B", "32B", "64B", "?"})
      EXPECT_EQ(velk_trans_str2num_type1((families[i] + size).c_str()), 64 + i) << size;
}

TEST(Names, OthersAreRefused) {
  for (const char* name :
       {"", "CDRD16", "CDRD128B", "CDRD64BX", "memrd", "MEMRD ", " MEMRD", "SPL:", "SPL:NOP",
        "SPLX", "INT", "INT:", "INT:INTA", "SPL:DEFR_RPLY", "VXB64", "(NULL)", "MEMRD64B\n"}) {
    try {
      velk_trans_str2num_type1(name);
      ADD_FAILURE() << "taken: " << name;
    } catch (const bool value) {
      EXPECT_FALSE(value) << name;
    }
  }
}

}  // namespace
