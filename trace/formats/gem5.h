// Packets of gem5, as its scripts decode them.
#pragma once

#include "trace/access.h"
#include "trace/layout.h"
#include "trace/lines.h"

namespace vqtrace {

// "r,128,64,4000": a command, a byte address and a size in bytes, both decimal, a time in ticks. A
// number of flags may stand before the time. Commands other than r and w fit no rule.
struct gem5 {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    std::uint64_t size = 0;
    if (rest.text("#")) return to;
    if (rest.text("r,")) {
      to->kind = access_kind::load;
    } else if (rest.text("w,")) {
      to->kind = access_kind::store;
    } else {
      return nullptr;
    }
    if (!rest.decimal(to->address) || !rest.text(",") || !rest.decimal(size) || !rest.text(",") ||
        !rest.decimal(to->time))
      return nullptr;
    if (rest.text(",") && !rest.decimal(to->time)) return nullptr;  // that was the flags
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
