// Requests to DRAM simulators, one a line with its cycle.
#pragma once

#include "trace/access.h"
#include "trace/layout.h"
#include "trace/lines.h"

namespace vqtrace {

// DRAMsim: "0x12345680 READ 30", a byte address, hexadecimal also without "0x", what is done there,
// a cycle. Besides READ and WRITE there are the names of older traces. "#" begins a comment.
struct dramsim {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    std::string_view what;
    rest.blanks();
    if (rest.text("#")) return to;
    const bool has_address = rest.address(to->address) || rest.hexadecimal(to->address);
    if (!has_address || !rest.blanks() || !rest.word(what) || !rest.blanks() ||
        !rest.decimal(to->time) || !rest.end())
      return nullptr;
    if (what == "READ" || what == "read" || what == "P_MEM_RD" || what == "P_LOCK_RD") {
      to->kind = access_kind::load;
    } else if (what == "WRITE" || what == "write" || what == "P_MEM_WR" || what == "P_LOCK_WR" ||
               what == "BOFF") {
      to->kind = access_kind::store;
    } else if (what == "IFETCH" || what == "P_FETCH") {
      to->kind = access_kind::fetch;
    } else {
      return nullptr;
    }
    to->size = 1;
    return to + 1;
  }
};

class dramsim_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_address(to, one.address);
    to = put_text(to, one.kind == access_kind::store ? " WRITE " : " READ ");
    to = put_decimal(to, one.time);
    return put_text(to, "\n");
  }
};

// STL: "31: read 0x400140", a cycle, what is done, a byte address; there may be the length of the
// burst in bytes, "(64)", before the second, and data after the last. "#" begins a comment.
struct stl {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    std::uint64_t size = 1;
    std::string_view what;
    rest.blanks();
    if (rest.text("#")) return to;
    if (!rest.decimal(to->time) || !rest.text(":") || !rest.blanks()) return nullptr;
    if (rest.text("(") && (!rest.decimal(size) || !rest.text(")") || !rest.blanks()))
      return nullptr;
    if (!rest.word(what) || !rest.blanks() || !rest.address(to->address)) return nullptr;
    if (!rest.at_end() && !rest.blanks()) return nullptr;
    if (what != "read" && what != "write") return nullptr;
    to->kind = what == "read" ? access_kind::load : access_kind::store;
    to->size = narrow_size(size);
    return to + 1;
  }
};

class stl_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_decimal(to, one.time);
    to = put_text(to, one.kind == access_kind::store ? ": write " : ": read ");
    to = put_address(to, one.address);
    return put_text(to, "\n");
  }
};

}  // namespace vqtrace
