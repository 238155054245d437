// Writes the bus traffic of a matrix transposition as a QUBIX file: transpose FILE
//
// Two processors share the work. Each reads the source a row at a time and writes the target a
// column at a time, 64 bytes a transaction; nothing is cached. Put your own loop in its place.

#include <vqpack/vqcomp.h>

#include <cstdio>

namespace {

constexpr int rows = 256;  // and columns, of 64-byte elements
constexpr long long element = 64;
constexpr long long source = 0x10000000, target = 0x20000000;

// Throws VQcomp_error for a transaction that the file type cannot hold, and for a failed write.
void transpose(VQcomp& trace) {
  constexpr velk_trans_class read = velk_trans_code("MEMRD64B"),
                             write = velk_trans_code("MEMWR64B");
  for (int row = 0; row < rows / 2; ++row)
    for (int column = 0; column < rows; ++column)
      for (int agent = 0; agent < 2; ++agent) {
        const int its_row = row + agent * rows / 2;
        trace.record(read, source + element * (its_row * rows + column), agent, 1);
        trace.record(write, target + element * (column * rows + its_row), agent, 1);
      }
}

void write_trace(std::FILE* file) {
  PRUV_header_t header;         // type 1 stores none, and takes this limit alone
  header.max_contexts = 16383;  // as vqpack does: it bounds the time and memory of both sides
  VQcomp trace(file, 1, &header, 65536, 65535);
  transpose(trace);
  const VQcomp_summary summary = trace.finish(file, &header);
  std::printf("%u contexts, %u address bits\n", summary.contexts, summary.address_length);
}

}  // namespace

int main(int argc, char** argv) {
  std::FILE* const file = argc == 2 ? std::fopen(argv[1], "wb") : nullptr;
  if (!file) {
    std::fprintf(stderr, "usage: transpose FILE, which must be writable\n");
    return 1;
  }
  bool written = true;
  try {
    write_trace(file);
  } catch (const VQcomp_error& error) {
    std::fprintf(stderr, "%s\n", error.str().c_str());
    written = false;
  }
  if (std::fclose(file) != 0) {
    std::perror(argv[1]);
    written = false;
  }
  return written ? 0 : 1;
}
