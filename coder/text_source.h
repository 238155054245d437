// A text stream, read in large blocks and taken in pieces.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "stdio_bytes.h"

namespace vqpack::detail {

// The pieces are those of fgets: up to a newline, which belongs to them, or up to a longest length.
// A failed read ends the text, too; failed() then holds.
class text_source {
 public:
  explicit text_source(FILE* file) : file_(file) {}

  // Bytes from at() on that can always be read; after the end of the text they are 0.
  static constexpr std::size_t readable = 128;
  // Bytes before at() that can be read, whatever they are.
  static constexpr std::size_t readable_before = 16;

  const char* at() const { return at_; }
  // Whether a read has failed; the last piece is cut off then, unless it ends with a newline.
  bool failed() const { return ended_ && std::ferror(file_) != 0; }
  // A line that starts before this is there as a whole, if it has no more than `readable` bytes.
  const char* whole_before() const { return ended_ ? end_ : end_ - readable + 1; }
  void skip_to(const char* to) { at_ = to; }
  void skip(std::size_t bytes) { at_ += bytes; }

  // Ensures that `readable` bytes of text are ahead, or all that are left. Returns false when there
  // is none.
  bool look_ahead() {
    if (ahead() < readable && !ended_) refill();
    return ahead() > 0;
  }

  // The piece at at(), of at most `longest` bytes (up to `readable`); empty at the end of the text.
  // It stays good until the next look_ahead() or piece().
  std::string_view piece(std::size_t longest) {
    assert(longest <= readable);
    if (!look_ahead()) return {};
    const std::size_t most = std::min(longest, ahead());
    const void* const newline = std::memchr(at_, '\n', most);
    return {at_, newline ? std::size_t(static_cast<const char*>(newline) - at_) + 1 : most};
  }

 private:
  static constexpr std::size_t block = 1 << 16;

  std::size_t ahead() const { return std::size_t(end_ - at_); }

  void refill() {
    const std::size_t kept = ahead();
    char* const start = buffer_.get() + readable_before;
    std::memmove(start, at_, kept);
    const std::size_t got = read_bytes(file_, start + kept, block);
    ended_ = got < block;
    at_ = start;
    end_ = start + kept + got;
    std::memset(start + kept + got, 0, readable);
  }

  FILE* file_;
  std::unique_ptr<char[]> buffer_ =
      std::make_unique<char[]>(readable_before + readable + block + readable);
  const char* at_ = buffer_.get();
  const char* end_ = at_;  // of the text in the buffer
  bool ended_ = false;
};

}  // namespace vqpack::detail
