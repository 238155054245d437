// Writes a trace of file type 5 with metadata, a comment and counts: annotate FILE
//
// Each processor of a pair reads its own buffer in steps of 64 bytes and answers every fourth read
// with a write to a mailbox of the other. The count of a transaction is the number of cycles since
// the one before.

#include <vqpack/vqcomp.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

namespace {

constexpr long long line = 64;  // bytes
constexpr int reads = 100000;
constexpr long long buffers[] = {0x100000000, 0x140000000};  // of the two agents
constexpr long long mailboxes[] = {0x7FC0, 0x7F80};

// The header owns its strings: array new, freed by its destructor.
char* owned(std::string_view text) {
  char* const copy = new char[text.size() + 1]{};
  text.copy(copy, text.size());
  return copy;
}

// Returns the cycles that it took.
long long run(VQcomp& trace) {
  constexpr velk_trans_class read = velk_trans_code("MEMRD64B"),
                             write = velk_trans_code("MEMWR64B");
  long long cycles = 0;
  const auto record = [&](velk_trans_class trans, long long addr, int agent, unsigned waited) {
    trace.record(trans, addr, agent, waited);
    cycles += waited;
  };
  for (int i = 0; i < reads; ++i) {
    const int agent = i % 2;
    record(read, buffers[agent] + i / 2 * line, agent, 12);
    if (i % 4 >= 2) record(write, mailboxes[agent], agent, 3);
  }
  return cycles;
}

void write_trace(std::FILE* file) {
  PRUV_header_t header;
  header.compression = 1;
  header.max_contexts = 16383;
  header.threads = 2;
  header.line_size = unsigned(line);
  header.comment = owned("two agents, each with a buffer and the other's mailbox");
  VQcomp trace(file, 5, &header, 65536, 65535);
  header.cycle_count = run(trace);
  // Puts the header, with the cycles, the count and the address length, where the file starts.
  const VQcomp_summary summary = trace.finish(file, &header);
  std::printf("%lld transactions, %u contexts\n", summary.transactions, summary.contexts);
  if (summary.totals != VQtotals::in_place)
    std::printf("the totals in the header are not the true ones: a pipe cannot seek\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::FILE* const file = argc == 2 ? std::fopen(argv[1], "wb") : nullptr;
  if (!file) {
    std::fprintf(stderr, "usage: annotate FILE, which must be writable\n");
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
