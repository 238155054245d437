// A QUBIX file of any bytes: however it is cut into chunks and taken in batches, the same
// transactions come out and the same error ends them.
#include <utility>

#include "fuzz.h"

namespace {

// Repeats of a few damaged bytes stand for billions of transactions.
constexpr std::size_t most = 1 << 12;

// The header, where it is one that can be written, encodes to the same bytes again.
void require_same_header(const bytes& file) {
  const file_ptr stream = open_bytes(file);
  velk_reader reader(stream.get(), nullptr);
  std::unique_ptr<PRUV_header_t> header;
  std::unique_ptr<unsigned char[]> encoded;
  int size = 0;
  error_of([&] {
    header.reset(reader.pruv_header(true));
    if (header->trans_names_static) header->drop_trans_names();
    encoded.reset(VQcomp::pruv_header_struct_to_bytes(*header, size));
  });
  const bool loses_limit = header && header->compression == 0;
  require(!encoded || loses_limit || std::equal(encoded.get(), encoded.get() + size, &file[3]),
          "the header comes back");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  std::minstd_rand random(static_cast<unsigned>(input.number(2)) + 1);
  const bytes file = input.rest();
  if (file.size() < 5) return 0;
  const decoded by_one = decode(
      file, [] { return 1024; }, most);

  for (int round = 0; round < 4; ++round) {
    const unsigned longest = 1u << random() % 10;
    const decoded in_parts = decode(
        file,
        [&, first = true]() mutable {
          return int((std::exchange(first, false) ? 5 : 1) + random() % longest);
        },
        most, random() % 100);
    require(in_parts.transactions == by_one.transactions, "chunks do not change transactions");
    require(without_place(in_parts.error) == without_place(by_one.error),
            "chunks do not change the error");
  }

  if (file[0] != 'Q') return 0;
  const file_ptr stream = open_bytes(file);
  require(read_all(stream.get(), 100, most) == by_one, "the reader finds what the decoder finds");
  require_same_header(file);
  return 0;
}
