// The bytes of a PRUV header: what is accepted encodes to the same bytes again.
#include "fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  const int version = 2 + int(input.byte() % 4);
  const bytes body = input.rest();
  std::unique_ptr<PRUV_header_t> header;
  error_of([&] {
    header.reset(VQuncomp::pruv_header_bytes_to_struct(body.data(), int(body.size()), version, 5));
  });
  if (!header) return 0;
  std::ostringstream report;
  report << *header;

  // These are carried by files, but not written.
  const bool unsupported = header->trans_set || header->capture_point || header->gen_method ||
                           header->address_properties;
  const bool loses_limit = header->compression == 0 && header->max_contexts != 0;
  int encoded_size = 0;
  std::unique_ptr<unsigned char[]> encoded;
  error_of([&] { encoded.reset(VQcomp::pruv_header_struct_to_bytes(*header, encoded_size)); });
  require(unsupported == !encoded, "what the fields hold can be encoded");
  if (!encoded || loses_limit) return 0;
  require(encoded_size == int(body.size()) + 2 &&
              std::equal(body.begin(), body.end(), encoded.get() + 2),
          "the bytes come back");
  return 0;
}
