// A trace of another tool, of the format FORMAT: whatever its bytes are, what is taken from it
// makes sense; and written and read again, it stays the same.
#include <algorithm>

#include "fuzz.h"
#include "trace/formats/formats.h"

using namespace vqtrace;

namespace {

// All accesses that a trace has, up to the first fault.
std::vector<memory_access> read_all(const foreign_format& format, FILE* file, bool skip_bad) {
  const auto reader = format.reader(file, skip_bad);
  std::vector<memory_access> all;
  try {
    for (;;) {
      memory_access some[access_reader::most + 3];
      const std::size_t size = reader->read(some, std::size(some));
      if (size == 0) break;
      all.insert(all.end(), some, some + size);
    }
  } catch (const bad_record& bad) {
    require(bad.number > 0, "a fault has its place");
    require(!skip_bad || format.record != std::string("line"), "bad lines can be left out");
  }
  return all;
}

bytes write_all(const foreign_format& format, const std::vector<memory_access>& all) {
  const auto writer = format.writer();
  std::string text;
  char piece[access_writer::longest];
  for (const memory_access& one : all) text.append(piece, writer->put(piece, one));
  text.append(piece, writer->finish(piece));
  require(writer->left_out() == 0, "what was read can be written");
  return bytes(text.begin(), text.end());
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const foreign_format& format = find_format(FORMAT);
  const bytes input(data, data + size);
  const std::vector<memory_access> all = read_all(format, file_of(input).get(), true);
  std::uint64_t time = 0;
  for (const memory_access& one : all) {
    require(one.size >= 1 && one.size <= 1 << 16, "the size is plausible");
    require(one.address + (one.size - 1) >= one.address, "the last byte has an address");
    require(one.time >= time, "time does not go back");
    time = one.time;
  }
  const std::vector<memory_access> sound = read_all(format, file_of(input).get(), false);
  const auto same = [](const memory_access& a, const memory_access& b) {
    return a.address == b.address && a.kind == b.kind;
  };
  require(sound.size() <= all.size() && std::equal(sound.begin(), sound.end(), all.begin(), same),
          "a fault changes nothing before it");

  if (!format.writer || all.empty()) return 0;
  const bytes written = write_all(format, all);
  const std::vector<memory_access> again = read_all(format, file_of(written).get(), false);
  require(std::ranges::equal(all, again,
                             [](const memory_access& a, const memory_access& b) {
                               const bool same_way =
                                   (a.kind == access_kind::store) == (b.kind == access_kind::store);
                               return a.address == b.address && same_way;
                             }),
          "what is written reads back");
  return 0;
}
