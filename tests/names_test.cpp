// Transaction names to codes and back.
#include <gtest/gtest.h>

#include "support.h"

namespace {

const char* const names[] = {
    "CDRD LNWR IORD IOWR MEMRD MEMWR RDINV WRINV",
    "CDRD16B LNWR16B IORD16B IOWR16B MEMRD16B MEMWR16B RDINV16B WRINV16B",
    "CDRD32B LNWR32B IORD32B IOWR32B MEMRD32B MEMWR32B RDINV32B WRINV32B",
    "CDRD64B LNWR64B IORD64B IOWR64B MEMRD64B MEMWR64B RDINV64B WRINV64B",
    "CDRD? LNWR? IORD? IOWR? MEMRD? MEMWR? RDINV? WRINV?",
    "INT:EOI INT:FIXED_LOGL INT:FIXED_PHYS INT:REDIR_LOGL INT:REDIR_PHYS INT:RSVD INTA DEFR_RPLY",
    "DEFR_REPLY RSVD BR_TRACE IOWR_RSVD (null) N4_RSVD SPL:Flush SPL:Halt",
    "SPL:RSVD SPL:SMIAck SPL:ShutDwn SPL:StClkAk SPL:Sync SPL:XTPR SPL:nop SPL",
    "VXB64B VXBNC64B WBMTOE64B WBMTOS64B"};

TEST(Names, AndTheirCodes) {
  int code = 0;
  for (const char* const eight : names) {
    std::istringstream from(eight);
    for (std::string name; from >> name; ++code) {
      EXPECT_EQ(velk_trans_str2num_type1(name.c_str()), code) << name;
      EXPECT_EQ(velk_trans_num2str_type1(velk_trans_class(code)), name);
    }
  }
  EXPECT_EQ(code, 68);
  for (const velk_trans_class none : {velk_trans_class(68), velk_trans_class(255)})
    EXPECT_THROW(velk_trans_num2str_type1(none), bool);
  static_assert(velk_trans_code("CDRD") == 0 && velk_trans_code("WBMTOS64B") == 67);
}

TEST(Names, DirectionsOfTransactions) {
  std::string directions;
  for (int trans = 0; trans < 256; ++trans)
    directions += "-rw"[int(velk_trans_access(velk_trans_class(trans)))];
  std::string wanted;
  for (int sizes = 0; sizes < 5; ++sizes) wanted += "rwrwrwrw";
  EXPECT_EQ(directions, wanted + std::string(26, '-') + "ww" + std::string(188, '-'));
}

TEST(Names, FamiliesOfOneSizeTakeAllSizes) {
  int code = 64;
  for (const std::string family : {"VXB", "VXBNC", "WBMTOE", "WBMTOS"}) {
    for (const char* size : {"", "16B", "32B", "64B", "?"})
      EXPECT_EQ(velk_trans_str2num_type1((family + size).c_str()), code) << family << size;
    ++code;
  }
}

TEST(Names, OthersAreRefused) {
  for (const char* name :
       {"", "CDRD16", "CDRD128B", "CDRD64BX", "memrd", "MEMRD ", " MEMRD", "SPL:", "SPL:NOP",
        "SPLX", "INT", "INT:", "INT:INTA", "SPL:DEFR_RPLY", "VXB64", "(NULL)", "MEMRD64B\n"})
    EXPECT_THROW(velk_trans_str2num_type1(name), bool) << name;
}

}  // namespace
