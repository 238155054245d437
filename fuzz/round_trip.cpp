// Transactions of all kinds, coded with all options, come back.
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const coding c = all_codings[input.byte() % std::size(all_codings)];
  const coder_limits limits{1LL << input.byte() % 63, unsigned(input.byte()),
                            84 + int(input.number(2) % 65000)};
  std::minstd_rand random(input.byte() + 1);
  const auto choose = [&] { return input.number(2) * 0x0001000100010001; };
  const trace transactions = make_trace(choose, int(size / 8), c);
  const decoded read = decode(
      encode(transactions, c, limits), [&] { return int(5 + random() % 200); }, transactions.size(),
      1 + random() % 20);
  require(read == decoded{transactions, ""}, "files keep transactions");
  return 0;
}
