// The C interface: any bytes, read through it, give what the reader in C++ finds.
#include "c/vqpack.h"
#include "fuzz.h"

namespace {

constexpr std::size_t most = 1 << 12;  // as for `decode`

decoded read_by_c(FILE* file, std::size_t batch) {
  decoded result;
  vqpack_reader* const reader = vqpack_open_descriptor(fileno(file));
  std::vector<vqpack_transaction> part(batch);
  while (result.transactions.size() <= most) {
    const std::size_t wanted = std::min(batch, most + 1 - result.transactions.size());
    const int64_t got = vqpack_read(reader, part.data(), wanted);
    for (int64_t i = 0; i < got; ++i) {
      const vqpack_transaction& t = part[std::size_t(i)];
      result.transactions.push_back({t.type, t.address, t.agent, t.count});
    }
    result.error = got > 0 ? "too many transactions" : vqpack_reader_error(reader)->text;
    if (got <= 0) break;
  }
  require(vqpack_reader_metadata(reader) || !result.error.empty(), "metadata or a reason");
  vqpack_reader_close(reader);
  return result;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const std::size_t batch = input.number(2) % 300 + 1;
  const bytes content = input.rest();
  const file_ptr file = file_of(content), stream = file_of(content);
  require(read_by_c(file.get(), batch) == read_all(stream.get(), batch, most),
          "both find the same");
  return 0;
}
