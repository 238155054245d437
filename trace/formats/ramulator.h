// Requests to Ramulator.
#pragma once

#include "trace/access.h"
#include "trace/layout.h"
#include "trace/lines.h"

namespace vqtrace {

// Three kinds of lines, without times; the time of an access is its number, or that of
// instructions:
//   "LD 0x12345680", "ST 305420928"     loads and stores; addresses decimal or 0x...
//   "0x12345680 R", "12345680 W"        reads and writes; addresses hexadecimal
//   "3 20734016", "3 20734016 20846400" instructions before a read, the address of the read, and
//                                       of a line that is written back after it; decimal or 0x...
// "#" begins a comment.
struct ramulator {
  memory_access* parse(std::string_view line, memory_access* to) {
    fields rest(line);
    rest.blanks();
    if (rest.text("#")) return to;
    to->size = 1;
    to->kind = rest.text("ST") ? access_kind::store : access_kind::load;
    if (to->kind == access_kind::store || rest.text("LD")) {
      if (!rest.blanks() || !any_address(rest, to->address) || !rest.end()) return nullptr;
      return at_next_time(to);
    }
    return parse_request(rest, to) ? at_next_time(to) : parse_instructions(rest, to);
  }

 private:
  memory_access* at_next_time(memory_access* to) {
    to->time = ++time_;
    return to + 1;
  }

  static bool parse_request(fields rest, memory_access* to) {
    std::string_view what;
    if (!rest.address(to->address) && !rest.hexadecimal(to->address)) return false;
    if (!rest.blanks() || !rest.word(what) || !rest.end()) return false;
    if (what == "W") to->kind = access_kind::store;
    return what == "R" || what == "W";
  }

  memory_access* parse_instructions(fields& rest, memory_access* to) {
    std::uint64_t before = 0, read = 0, written = 0;
    if (!rest.decimal(before) || !rest.blanks() || !any_address(rest, read)) return nullptr;
    const bool writes = rest.blanks() && any_address(rest, written);
    const std::uint64_t time = time_ + before + 1;
    if (!rest.end() || time <= time_) return nullptr;
    time_ = time;
    *to++ = {read, time, 1, access_kind::load};
    if (writes) *to++ = {written, time, 1, access_kind::store};
    return to;
  }

  static bool any_address(fields& rest, std::uint64_t& value) {
    return rest.address(value) || rest.decimal(value);
  }

  std::uint64_t time_ = 0;
};

// Loads and stores.
class ramulator_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_text(to, one.kind == access_kind::store ? "ST " : "LD ");
    return put_text(put_address(to, one.address), "\n");
  }
};

// Reads and writes.
class ramulator_rw_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    to = put_address(to, one.address);
    return put_text(to, one.kind == access_kind::store ? " W\n" : " R\n");
  }
};

// Instructions: a write goes into the line of the read directly before it. Others have no place.
class ramulator_cpu_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    if (one.kind == access_kind::store) {
      if (!in_line_) {
        ++left_out_;
        return to;
      }
      to = put_decimal(put_text(to, " "), one.address);
      in_line_ = false;
      return put_text(to, "\n");
    }
    to = finish(to);
    const std::uint64_t instructions = one.time - time_;
    time_ = one.time;
    to = put_decimal(to, instructions == 0 ? 0 : instructions - 1);
    to = put_decimal(put_text(to, " "), one.address);
    in_line_ = true;
    return to;
  }

  char* finish(char* to) override {
    if (in_line_) to = put_text(to, "\n");
    in_line_ = false;
    return to;
  }

  std::uint64_t left_out() const override { return left_out_; }

 private:
  bool in_line_ = false;  // of a read, which a write may end
  std::uint64_t time_ = 0;
  std::uint64_t left_out_ = 0;
};

}  // namespace vqtrace
