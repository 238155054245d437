// What the view tool prints of a drmemtrace.
#pragma once

#include "trace/access.h"
#include "trace/lines.h"

namespace vqtrace {

// "  12  4: 3256418 write  8 byte(s) @ 0x00007ffd8e5a2a88 by PC 0x..." and the like: the numbers of
// the record and of the instruction, the thread, the kind ("ifetch", "read", "write"), a size in
// bytes, a byte address, and more that does not matter. Other kinds (prefetches, flushes) are
// passed over, and so are markers, "<...>", and the lines before and after the records. The time of
// an access is its number.
struct drmemtrace {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    rest.blanks();
    if (!rest.digits()) return is_frame(line) ? to : nullptr;
    rest.blanks();
    if (rest.digits()) rest.blanks();
    if (!rest.text(":") || !rest.blanks()) return nullptr;
    if (rest.text("W") && rest.digits()) rest.text(".");
    rest.text("T");
    if (!rest.digits()) return to;  // a total at the end
    rest.text(":");
    if (!rest.blanks()) return nullptr;
    return rest.rest().starts_with("<") || are_bytes(rest) ? to : parse_access(rest, to);
  }

 private:
  static bool is_frame(std::string_view line) {
    return line.starts_with("Output format") || line.starts_with("<--") ||
           line.starts_with("---") || line.starts_with("View tool results");
  }

  // Whether there are only the bytes of an instruction that did not fit into the line before.
  static bool are_bytes(fields rest) {
    std::string_view byte;
    while (rest.word(byte)) {
      if (byte.size() != 2 || byte.find_first_not_of("0123456789abcdef") < 2) return false;
      rest.blanks();
    }
    return true;
  }

  memory_access* parse_access(fields& rest, memory_access* to) {
    std::string_view kind;
    std::uint64_t size = 0;
    // Some kinds have two words.
    while (rest.word(kind) && rest.blanks() && !rest.decimal(size)) continue;
    if (!rest.text(" byte(s) @ ") || !rest.address(to->address)) return nullptr;
    if (kind == "ifetch") {
      to->kind = access_kind::fetch;
    } else if (kind == "read") {
      to->kind = access_kind::load;
    } else if (kind == "write") {
      to->kind = access_kind::store;
    } else {
      return to;
    }
    to->size = narrow_size(size);
    to->time = ++time_;
    return to + 1;
  }

  std::uint64_t time_ = 0;
};

}  // namespace vqtrace
