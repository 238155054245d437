// Accesses from lines of text.
#pragma once

#include <string_view>

#include "trace/access.h"
#include "trace/lines.h"

namespace vqtrace {

// Whether an access can be: of 1 to 64 KiB, which is more than any instruction or burst has, and
// not past the last address.
inline bool is_plausible(std::uint64_t address, std::uint64_t size) {
  constexpr std::uint64_t largest = 1 << 16;
  return size - 1 < largest && address + (size - 1) >= address;
}

// `Format` has a default constructor and
//   memory_access* parse(std::string_view line, memory_access* to);
// which puts up to access_reader::most accesses at `to` and returns the position after them, null
// for a line that fits no rule. Lines of blanks do not reach it.
template <class Format>
class text_reader final : public access_reader {
 public:
  text_reader(FILE* file, bool skip_bad) : source_(file), skip_bad_(skip_bad) {}

  std::size_t read(memory_access* accesses, std::size_t size) override {
    memory_access* at = accesses;
    const memory_access* const last = accesses + (size - most);
    while (at <= last && !is_bad_ && source_.next(line_)) {
      if (!source_.is_cut() && fields(line_).end()) continue;
      if (memory_access* const end = parse(at)) {
        at = end;
      } else if (skip_bad_) {
        ++skipped_;
      } else {
        is_bad_ = true;
      }
    }
    if (at == accesses && is_bad_) throw bad_record{source_.number(), goes_back_};
    return std::size_t(at - accesses);
  }

  std::uint64_t skipped() const override { return skipped_; }

 private:
  // As Format::parse(), but the accesses are also plausible, and time does not go back.
  memory_access* parse(memory_access* at) {
    memory_access* const end = source_.is_cut() ? nullptr : format_.parse(line_, at);
    if (!end) return nullptr;
    std::uint64_t time = time_;
    for (const memory_access* a = at; a != end; ++a) {
      if (!is_plausible(a->address, a->size)) return nullptr;
      goes_back_ = a->time < time;
      if (goes_back_) return nullptr;
      time = a->time;
    }
    time_ = time;
    return end;
  }

  line_source source_;
  Format format_;
  std::string_view line_;
  std::uint64_t time_ = 0;  // of the latest access
  bool skip_bad_;
  bool is_bad_ = false;
  bool goes_back_ = false;
  std::uint64_t skipped_ = 0;
};

}  // namespace vqtrace
