// The memory trace of valgrind's lackey.
#pragma once

#include "trace/access.h"
#include "trace/layout.h"
#include "trace/lines.h"

namespace vqtrace {

// "I  04001000,3", " L addr,size", " S addr,size", " M addr,size": a byte address in hexadecimal
// and a size in bytes. Messages of valgrind begin with "==1234== " or "--1234-- ". The time of an
// access is its number.
struct lackey {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    std::uint64_t size = 0;
    if (rest.text("I  ")) {
      to->kind = access_kind::fetch;
    } else if (rest.text(" L ")) {
      to->kind = access_kind::load;
    } else if (rest.text(" S ")) {
      to->kind = access_kind::store;
    } else if (rest.text(" M ")) {
      to->kind = access_kind::modify;
    } else {
      return line.starts_with("==") || line.starts_with("--") ? to : nullptr;
    }
    if (!rest.hexadecimal(to->address) || !rest.text(",") || !rest.decimal(size) || !rest.end())
      return nullptr;
    to->size = narrow_size(size);
    to->time = ++time_;
    return to + 1;
  }

 private:
  std::uint64_t time_ = 0;
};

class lackey_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_text(to, starts[int(one.kind)]);
    to = put_hexadecimal(to, one.address, 8);
    to = put_text(to, ",");
    to = put_decimal(to, one.size);
    return put_text(to, "\n");
  }

 private:
  static constexpr std::string_view starts[] = {"I  ", " L ", " S ", " M "};  // by kind
};

}  // namespace vqtrace
