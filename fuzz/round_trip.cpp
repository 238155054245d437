// Transactions of all kinds, with all options: text, parsed, coded, decoded and printed again,
// stays the same.
#include "coder/line_format.h"
#include "fuzz.h"

using namespace vqpack::detail;

namespace {

bytes print(const trace& transactions, coding c) {
  const line_format format(VQcomp::FSB_transactions, int(std::size(VQcomp::FSB_transactions)),
                           c.four_field());
  std::vector<char> line(format.max_line());
  bytes text;
  for (const transaction& t : transactions) {
    char* const end = format.put(line.data(), {t.addr, t.agent, t.count, t.trans});
    text.insert(text.end(), line.data(), end);
  }
  return text;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const coding c = all_codings[input.byte() % std::size(all_codings)];
  const coder_limits limits{1LL << input.byte() % 63, unsigned(input.byte()),
                            84 + int(input.number(2) % 65000)};
  std::minstd_rand random(input.byte() + 1);
  const auto choose = [&] { return input.number(2) * 0x0001000100010001; };
  const trace transactions = make_trace(choose, int(size / 8), c);
  const bytes text = print(transactions, c);
  if (text.empty()) return 0;
  const file_ptr file = open_bytes(text);
  const decoded parsed = read_all(file.get(), random() % 20, transactions.size());
  require(parsed == decoded{transactions, ""}, "text keeps transactions");
  const decoded read = decode(
      encode(transactions, c, limits), [&] { return int(5 + random() % 200); }, transactions.size(),
      random() % 20);
  require(read == decoded{transactions, ""}, "files keep transactions");
  require(print(read.transactions, c) == text, "the text comes back");
  return 0;
}
