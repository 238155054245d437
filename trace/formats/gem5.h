// Packets of gem5, as its scripts decode them.
#pragma once

#include "trace/access.h"
#include "trace/layout.h"
#include "trace/lines.h"

namespace vqtrace {

// "r,128,64,4000": a command, a byte address and a size in bytes, both decimal, a time in ticks.
// Before the command there may be the number of the packet, before the time flags, and, where there
// are flags, the address of the instruction after it. Commands other than r and w, written as "u",
// are passed over.
struct gem5 {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    std::uint64_t size = 0;
    rest.blanks();
    if (rest.text("#") || rest.text("u,")) return to;
    if (rest.digits() && !rest.text(",")) return nullptr;
    if (rest.text("r,")) {
      to->kind = access_kind::load;
    } else if (rest.text("w,")) {
      to->kind = access_kind::store;
    } else {
      return rest.text("u,") ? to : nullptr;
    }
    if (!rest.decimal(to->address) || !rest.text(",") || !rest.decimal(size) || !rest.text(",") ||
        !rest.decimal(to->time))
      return nullptr;
    if (rest.text(",") && !rest.decimal(to->time)) return nullptr;  // that was the flags
    if (rest.text(",") && !rest.digits()) return nullptr;
    if (!rest.end()) return nullptr;
    to->size = narrow_size(size);
    return to + 1;
  }
};

class gem5_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_text(to, one.kind == access_kind::store ? "w," : "r,");
    to = put_decimal(to, one.address);
    to = put_decimal(put_text(to, ","), one.size);
    to = put_decimal(put_text(to, ","), one.time);
    return put_text(to, "\n");
  }
};

}  // namespace vqtrace
