// Text of any bytes: the reader takes each line as the C library does.
#include <cstring>

#include "fuzz.h"

namespace {

constexpr char usual_line[] = "MEMRD64B 0000001040 00 7 0 .... and words to fill the line with\n";
constexpr std::size_t usual_bytes = sizeof usual_line - 1;
static_assert(usual_bytes == 64);

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

// After `lines` usual lines, which the readers have passed.
struct line_input {
  line_input(const bytes& text, std::size_t lines, velk_reader::name_parser names)
      : file(open_bytes(text)), reader(file.get(), names) {
    std::vector<VQtransaction> passed(lines);
    while (lines > 0) lines -= reader.read(passed.data(), lines);
  }

  file_ptr file;
  velk_reader reader;
};

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
  const unsigned choice = input.byte();
  const std::size_t lines = choice == 1 ? (1 << 16) / usual_bytes - 1 : 0;
  bytes text;
  for (std::size_t i = 0; i < lines; ++i)
    text.insert(text.end(), usual_line, usual_line + usual_bytes);
  const bytes rest = input.rest();
  text.insert(text.end(), rest.begin(), rest.end());
  if (text.empty() || text[0] == 'Q') return 0;

  const file_ptr plain = open_bytes(text);
  std::fseek(plain.get(), long(lines * usual_bytes), SEEK_SET);
  const auto slow_names = [](const char* name) { return velk_trans_str2num_type1(name); };
  line_input tested(text, lines, nullptr), named(text, lines, slow_names);
  for (const char* msg = nullptr; !msg || std::strcmp(msg, "end") != 0;) {
    transaction wanted{};
    msg = scan_plainly(plain.get(), wanted);
    require_same(tested.reader, msg, wanted);
    require_same(named.reader, msg, wanted);
  }
  return 0;
}
