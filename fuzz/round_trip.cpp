// Transactions of all kinds, with all options: text, parsed, coded, decoded and printed again,
// stays the same.
#include "coder/line_format.h"
#include "fuzz.h"

using namespace vqpack::detail;

namespace {

coder_limits choose_limits(fuzz_input& input) {
  const long long windows[] = {65535, 0, 8, 1000, 1LL << 40, 1LL << 62};
  const unsigned most_contexts[] = {16383, 0, 1, 2, 3, 64, 65, 200};
  const int block_sizes[] = {84, 85, 100, 1024, 65536};
  coder_limits limits;
  limits.window = windows[input.byte() % std::size(windows)];
  limits.max_contexts = most_contexts[input.byte() % std::size(most_contexts)];
  limits.block_size = block_sizes[input.byte() % std::size(block_sizes)];
  return limits;
}

// Goes on from the one before: the same place and so many lines further, or elsewhere.
transaction next_transaction(fuzz_input& input, const transaction& before, coding c) {
  transaction t = before;
  const unsigned kind = input.byte();
  if (kind & 1) t.trans = velk_trans_class(input.byte() % 68);
  if (kind & 2) t.agent = int(input.number(c.wide_agents() ? 2 : 1));
  if (kind & 4) t.count = c.four_field() ? unsigned(input.number(1 + int(kind >> 4) % 4)) : 1;
  unsigned long long addr = static_cast<unsigned long long>(t.addr);
  if (kind & 8)
    addr = input.number(1 + int(kind >> 4) % 8) << (kind & 1 ? 3 : 0);
  else
    addr += (static_cast<unsigned long long>(kind >> 4) - 7) *
            (8ull << VQcomp::trans2line_size[t.trans >> 3]);
  t.addr = static_cast<long long>(addr & ~7ull);
  if (t.trans == 47 || t.trans == 48) t.addr &= 0xFF0000;
  return t;
}

bytes print(const trace& transactions, coding c) {
  const line_format format(VQcomp::FSB_transactions, int(std::size(VQcomp::FSB_transactions)),
                           c.four_field());
  std::vector<char> line(format.longest_line());
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
  const coder_limits limits = choose_limits(input);
  std::minstd_rand random(static_cast<unsigned>(input.byte()) + 1);
  trace transactions;
  for (transaction t{}; !input.empty(); transactions.push_back(t))
    t = next_transaction(input, t, c);

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
