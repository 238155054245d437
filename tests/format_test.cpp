// Printed lines against those of the C library.
#include <gtest/gtest.h>

#include "coder/line_format.h"
#include "support.h"

using namespace vqpack::detail;

namespace {

TEST(LineFormat, PrintsWhatPrintfPrints) {
  const std::string long_name(300, 'n');
  const char* const names[] = {long_name.c_str(), "",           "IORD",
                               "INT:FIXED_LOGL",  "exactly_10", "fifteen_letters",
                               "sixteen_letters_"};
  std::mt19937_64 random(11);
  for (const bool with_counts : {false, true}) {
    const line_format format(names, int(std::size(names)), with_counts);
    for (int i = 0; i < 20000; ++i) {
      VQtransaction t{};
      t.trans = static_cast<velk_trans_class>(random() % std::size(names));
      t.addr = static_cast<long long>(random() >> random() % 64);
      t.agent = int(unsigned(random()) >> random() % 32);
      t.count = unsigned(random()) >> random() % 32;
      if (i % 100 == 0) t.addr = t.agent = int(t.count = 0);
      char wanted[400];
      const char* const layout = with_counts ? "%10s %08llX %x %u\n" : "%10s %08llX %x\n";
      std::snprintf(wanted, sizeof wanted, layout, names[t.trans],
                    static_cast<unsigned long long>(t.addr), unsigned(t.agent), t.count);
      std::vector<char> line(format.max_line());  // as small as it may be
      line.resize(std::size_t(format.put(line.data(), t) - line.data()));
      ASSERT_EQ(std::string(line.begin(), line.end()), wanted);
    }
  }
}

}  // namespace
