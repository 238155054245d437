// Text lines to transactions, for lines of the usual shapes.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "bytes.h"
#include "processor.h"
#include "text_fields.h"
#include "vqtypes.h"

// The plain form of a line scan is sscanf with "%19s%llx%x %u%c" and the name parser. It takes
// hundreds of nanoseconds a line, and all of its edge cases (signs, prefixes, tabs, numbers that
// overflow, fields that run into each other) are legal. Two faster forms take most lines, and leave
// all others to the plain one:
//
// A line as this system prints it has its fields in fixed places: the name in columns 0 to 9, the
// address from column 11 on, single blanks between. Its fields are read before it is known where
// they end, and one branch decides over all of them: a wrong guess at the number of digits costs as
// much as the whole line.
//
// A line of fields that are separated by blanks, wherever they stand: a name of the table, an
// address of at most 16 hexadecimal digits, an agent of at most 8 and possibly a count of at most 8
// decimal ones, all within 64 bytes. Whatever follows after a blank is ignored, as in the plain
// form.
namespace vqpack::detail::line_scan {

// Bytes that must be readable from the start of a line on and before it, whatever they are.
constexpr std::size_t readable_after = 64;
constexpr std::size_t readable_before = 16;

constexpr unsigned name_columns = 10;
constexpr unsigned addr_column = name_columns + 1;
// Where the newline and the blank after an address of five digits or more are looked for. Any of
// them before spoils a field.
constexpr unsigned marked_column = 16;

// Takes the line at `line` if its fields are in their places, and returns its length, newline
// included; returns 0 if they are not.
[[gnu::always_inline]] inline unsigned scan_columns(const char* line, const byte_vectors& vectors,
                                                    VQtransaction& t) {
  byte_marks marks = mark_16(line + marked_column, vectors);
  if (marks.newlines == 0) [[unlikely]] {
    const byte_marks more = mark_16(line + marked_column + 16, vectors);
    marks = {marks.blanks | more.blanks << 16, more.newlines << 16};
    if (marks.newlines == 0) return 0;
  }
  const auto line_end = marked_column + unsigned(std::countr_zero(marks.newlines));
  // The blanks after address and agent.
  const std::uint64_t blanks = marks.blanks & (marks.newlines ^ (marks.newlines - 1));
  const std::uint64_t later_blanks = blanks & (blanks - 1);
  const auto addr_end = marked_column + unsigned(std::countr_zero(blanks | 1 << 16));
  const auto agent_end = marked_column + unsigned(std::countr_zero(later_blanks | marks.newlines));

  // Each part of `faults` is 0 where a field is good.
  std::uint64_t faults;
  t.trans = names.find(load_columns(line), faults);
  faults |= unsigned(line[name_columns] ^ ' ');
  const hex_digits addr = scan_hex(line + addr_column, vectors);
  const unsigned unused_digits = addr_column + 16 - addr_end;  // beyond the address
  faults |= addr.others << (unused_digits & 15) & 0xFFFF;
  faults |= unused_digits & ~15u;
  const unsigned more_digits = agent_end - addr_end - 2;  // of the agent, none or one
  const unsigned ones = hex_value(line[agent_end - 1]);
  const unsigned sixteens = hex_value(line[agent_end - 2]) & -more_digits;
  faults |= (ones | sixteens) & ~0xFu;
  faults |= more_digits & ~1u;
  if (faults != 0) return 0;

  t.addr = static_cast<long long>(addr.value >> 4 * unused_digits);
  t.agent = static_cast<int>(sixteens << 4 | ones);
  t.count = 1;
  if (later_blanks != 0) {
    const bool is_last = (later_blanks & (later_blanks - 1)) == 0 && agent_end + 1 < line_end;
    if (!is_last || !scan_count(line + agent_end + 1, line + line_end, t.count)) return 0;
  }
  return line_end + 1;
}

// The same for a line whose fields are anywhere.
[[gnu::noinline]] inline unsigned scan_fields(const char* line, VQtransaction& t) {
  const auto& vectors = byte_vectors::hidden();
  byte_marks marks{0, 0};
  for (unsigned from = 0; from < 64; from += 16) {
    const byte_marks more = mark_16(line + from, vectors);
    marks.blanks |= more.blanks << from;
    marks.newlines |= more.newlines << from;
  }
  if (marks.newlines == 0) return 0;
  const auto line_end = unsigned(std::countr_zero(marks.newlines));

  // Where fields begin and end: the bits of `edges`, one after another.
  const std::uint64_t text = ~marks.blanks & ((std::uint64_t{1} << line_end) - 1);
  std::uint64_t edges = text ^ text << 1;
  const auto next_edge = [&edges] {
    const auto edge = unsigned(std::countr_zero(edges));
    edges &= edges - 1;
    return edge;
  };
  next_edge();
  const unsigned name_end = next_edge();
  const unsigned addr = next_edge(), addr_end = next_edge();
  const unsigned agent = next_edge();
  if (edges == 0) return 0;
  const unsigned agent_end = next_edge();

  const auto take_hex = [&](unsigned from, unsigned end, std::uint64_t& value) {
    const unsigned before = 16 - (end - from);  // characters before it
    const hex_digits digits = scan_hex(line + end - 16, vectors);
    value = digits.value << 4 * before >> 4 * before;
    return digits.others >> before == 0;
  };
  std::uint64_t addr_value, agent_value, mismatch;
  t.trans = names.find(load_name(line + name_end, name_end), mismatch);
  if (mismatch != 0 || addr_end - addr > 16 || agent_end - agent > 8 ||
      !take_hex(addr, addr_end, addr_value) || !take_hex(agent, agent_end, agent_value))
    return 0;
  t.addr = static_cast<long long>(addr_value);
  t.agent = static_cast<int>(agent_value);
  t.count = 1;
  if (edges != 0) {
    const unsigned count = next_edge(), count_end = next_edge();
    if (!scan_count(line + count, line + count_end, t.count)) return 0;
  }
  return line_end + 1;
}

// Takes lines from `at` on, up to `size`, as long as they are of the usual shapes and start before
// `end`. Moves `at` past them and returns how many they are.
VQPACK_CLONES inline std::size_t scan_usual_lines(const char*& at, const char* end,
                                                  VQtransaction* to, std::size_t size) {
  const auto& vectors = byte_vectors::hidden();
  const char* line = at;
  std::size_t done = 0;
  for (; done < size && line < end; ++done) {
    unsigned length = scan_columns(line, vectors, to[done]);
    if (length == 0) [[unlikely]] {
      length = scan_fields(line, to[done]);
      if (length == 0) break;
    }
    line += length;
  }
  at = line;
  return done;
}

}  // namespace vqpack::detail::line_scan
