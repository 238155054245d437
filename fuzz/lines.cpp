// Text of any bytes: the reader takes each line as the C library does.
#include <cstring>

#include "fuzz.h"

namespace {

constexpr char usual_line[] = "MEMRD64B 0000001040 00 7 0 .... and words to fill the line with\n";
constexpr std::size_t usual_bytes = sizeof usual_line - 1;
static_assert(usual_bytes == 64);

// After `lines` usual lines, which the readers have passed.
struct line_input {
  line_input(bytes& text, std::size_t lines, velk_reader::name_parser names)
      : file(open_bytes(text)), reader(file.get(), names) {
    std::vector<VQtransaction> passed(lines);
    while (lines > 0) lines -= reader.read(passed.data(), lines);
  }

  file_ptr file;
  velk_reader reader;
};

char last_name[20];
velk_trans_class remember_name(const char* name) {
  std::strcpy(last_name, name);
  return velk_trans_str2num_type1(name);
}

const char* next_line(velk_reader& reader, transaction& t) {
  try {
    return reader.read(t.trans, t.addr, t.agent, t.count) ? nullptr : "end";
  } catch (const VQcomp_error& error) {
    return error.msg;
  }
}

void require_same(const char* msg, const transaction& t, const char* wanted_msg,
                  const transaction& wanted) {
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
  line_input tested(text, lines, nullptr), named(text, lines, remember_name);
  for (const char* msg = nullptr; !msg || std::strcmp(msg, "end") != 0;) {
    transaction wanted{}, t{};
    char name[20];
    msg = scan_plainly(plain.get(), wanted, name);
    const char* const found = next_line(tested.reader, t);
    require_same(found, t, msg, wanted);
    const char* const found_by_name = next_line(named.reader, t);
    require_same(found_by_name, t, msg, wanted);
    if (!msg || std::strcmp(msg, "Unknown transaction") == 0)
      require(std::strcmp(name, last_name) == 0, "the same names");
  }
  return 0;
}
