// Counts the transactions of a trace by type and agent: count [TRACE]
//
// The trace may be VELK text or any QUBIX file; without a name it is read from standard input. A
// simulator would start like this: instead of counting, it would act on each transaction.

#include <vqpack/vqcomp.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <utility>

namespace {

struct file_closer {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

// By type and agent.
using totals = std::map<std::pair<velk_trans_class, int>, unsigned long long>;

totals count(velk_reader& reader) {
  totals counted;
  VQtransaction batch[256];  // many at a time: a call costs more than a transaction
  while (const std::size_t size = reader.read(batch, std::size(batch)))
    for (const VQtransaction* t = batch; t != batch + size; ++t) ++counted[{t->trans, t->agent}];
  return counted;
}

void print(const totals& counted, const PRUV_header_t& header) {
  for (const auto& [key, total] : counted)
    std::printf("%-10s agent %-5d %llu\n", header.trans_names[key.first], key.second, total);
}

}  // namespace

int main(int argc, char** argv) {
  const std::unique_ptr<std::FILE, file_closer> file(argc > 1 ? std::fopen(argv[1], "rb") : stdin);
  if (!file) {
    std::perror(argv[1]);
    return 1;
  }
  try {
    velk_reader reader(file.get(), nullptr);  // null: the usual names of transactions
    // Read before the first transaction. False: do not count the trace in advance.
    const std::unique_ptr<PRUV_header_t> header(reader.pruv_header(false));
    print(count(reader), *header);
  } catch (const VQcomp_error& error) {
    std::fprintf(stderr, "%s\n", error.str().c_str());
    return 1;
  }
  return 0;
}
