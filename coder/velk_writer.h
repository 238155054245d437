// Transactions to a stream of VELK text.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <utility>
#include <vector>

#include "errors.h"
#include "line_format.h"
#include "stdio_bytes.h"

namespace vqpack::detail {

// Which lines get a count.
enum class velk_counts { none, all, other_than_1 };

// Writes transactions as lines of velk(5), many of them at once.
class velk_writer {
 public:
  // Takes the buffer away from `out`, which is not owned. `names` are those of the codes below
  // `name_count`, and need not outlive the call.
  velk_writer(FILE* out, const char* const* names, int name_count, velk_counts counts)
      : out_(out),
        counts_(counts),
        plain_(names, name_count, false),
        counted_(names, name_count, true),
        lines_(std::max(block, 2 * plain_.max_line())) {
    std::setvbuf(out_, nullptr, _IONBF, 0);  // `lines_` is the buffer
  }

  // The code must have a name. Throws VQcomp_error "Can't write output".
  void put(const VQtransaction& t) {
    if (lines_.size() - used_ < plain_.max_line() && !flush())
      fail(VQfault::cannot_write, cannot_write);
    const bool with_count =
        counts_ == velk_counts::all || (counts_ == velk_counts::other_than_1 && t.count != 1);
    const line_format& format = with_count ? counted_ : plain_;
    used_ = std::size_t(format.put(&lines_[used_], t) - lines_.data());
  }

  // Writes what is left. False if that fails; another flush() does not try again.
  bool flush() {
    const std::size_t size = std::exchange(used_, 0);
    return write_bytes(out_, lines_.data(), size);
  }

 private:
  static constexpr std::size_t block = 1 << 16;

  FILE* out_;
  velk_counts counts_;
  line_format plain_, counted_;  // of equal longest lines
  std::vector<char> lines_;
  std::size_t used_ = 0;
};

}  // namespace vqpack::detail
