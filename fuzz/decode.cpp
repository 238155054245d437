// A QUBIX file of any bytes: however it is cut into chunks and taken in batches, the same
// transactions come out and the same error ends them.
#include <utility>

#include "fuzz.h"

// Repeats of a few damaged bytes stand for billions of transactions.
constexpr std::size_t most = 1 << 12;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  std::minstd_rand random(static_cast<unsigned>(input.number(2)) + 1);
  const bytes file = input.rest();
  if (file.size() < 5) return 0;
  const decoded by_one = decode(file, 1024, most);

  for (int round = 0; round < 4; ++round) {
    const unsigned longest = 1u << random() % 10;
    const decoded in_parts = decode(
        file,
        [&, first = true]() mutable {
          return int((std::exchange(first, false) ? 5 : 1) + random() % longest);
        },
        most, 1 + random() % 100);
    require(in_parts.transactions == by_one.transactions, "chunks do not change transactions");
    require(without_place(in_parts.error) == without_place(by_one.error),
            "chunks do not change the error");
  }

  if (file[0] != 'Q') return 0;
  const file_ptr stream = file_of(file);
  require(read_all(stream.get(), 100, most) == by_one, "the reader finds what the decoder finds");
  return 0;
}
