// Text of any bytes: the reader takes each line as the C library does.
#include <cstring>

#include "fuzz.h"

namespace {

// The next line of text through the C library alone. Returns what is wrong with it, null if nothing
// is; "end" when there is none.
const char* scan_plainly(FILE* file, transaction& t) {
  char line[100], name[20], next;
  unsigned long long addr;
  unsigned agent;
  if (!std::fgets(line, sizeof line, file)) return "end";
  const int fields = std::sscanf(line, "%19s%llx%x %u%c", name, &addr, &agent, &t.count, &next);
  if (fields < 3 || (fields == 5 && next != ' ' && next != '\n')) return "Bad input line";
  if (fields == 3) t.count = 1;
  t.addr = static_cast<long long>(addr);
  t.agent = int(agent);
  try {
    t.trans = velk_trans_str2num_type1(name);
  } catch (bool) {
    return "Unknown transaction";
  }
  return nullptr;
}

void require_same(velk_reader& reader, const char* wanted_msg, const transaction& wanted) {
  transaction t{};
  const char* msg = nullptr;
  try {
    if (!reader.read(t.trans, t.addr, t.agent, t.count)) msg = "end";
  } catch (const VQcomp_error& error) {
    msg = error.msg;
  }
  require(!msg == !wanted_msg && (!msg || std::strcmp(msg, wanted_msg) == 0), "the same messages");
  require(msg || t == wanted, "the same transactions");
}

}  // namespace

// The first byte can let the text begin a few bytes before the end of a block that the reader takes
// from its stream.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz_input input(data, size);
  constexpr char usual_line[] = "MEMRD64B 0000001040 00 7 0 .... and words to fill the line with\n";
  bytes text;
  if (input.byte() == 1)
    while (text.size() < (1 << 16) - 64)
      text.insert(text.end(), std::begin(usual_line), std::end(usual_line) - 1);
  const bytes rest = input.rest();
  text.insert(text.end(), rest.begin(), rest.end());
  if (text.empty() || text[0] == 'Q') return 0;

  const file_ptr files[] = {file_of(text), file_of(text), file_of(text)};
  velk_reader reader(files[1].get(), nullptr);
  velk_reader by_name(files[2].get(),
                      [](const char* name) { return velk_trans_str2num_type1(name); });
  for (const char* msg = nullptr; !msg || std::strcmp(msg, "end") != 0;) {
    transaction wanted{};
    msg = scan_plainly(files[0].get(), wanted);
    require_same(reader, msg, wanted);
    require_same(by_name, msg, wanted);
  }
  return 0;
}
