// Lines of text, and what stands in them.
#pragma once

#include <charconv>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "coder/stdio_bytes.h"

namespace vqtrace {

// The lines of a stream.
class line_source {
 public:
  explicit line_source(FILE* file) : file_(file), buffer_(new char[capacity]) {}

  // The next line, without its end; valid until the next call. Of a line with more than `capacity`
  // bytes only the first are delivered. False at the end of the stream, and where a failed read
  // cuts off a line.
  bool next(std::string_view& line) {
    is_cut_ = false;
    const char* end = find_end();
    if (!end && !(end = fill())) return false;
    line = {begin_, std::size_t(end - begin_)};
    begin_ = end == filled_ ? end : end + 1;
    if (line.ends_with('\r')) line.remove_suffix(1);
    ++number_;
    return true;
  }

  // Of the latest line: its 1-based number, and whether it is longer than what was delivered.
  std::uint64_t number() const { return number_; }
  bool is_cut() const { return is_cut_; }

  static constexpr std::size_t capacity = 1 << 16;

 private:
  const char* find_end() const {
    return static_cast<const char*>(std::memchr(begin_, '\n', std::size_t(filled_ - begin_)));
  }

  // Reads on until there is the end of a line. Null where there is no line.
  const char* fill() {
    const std::size_t left = std::size_t(filled_ - begin_);
    std::memmove(buffer_.get(), begin_, left);
    begin_ = buffer_.get();
    const std::size_t got =
        vqpack::detail::read_bytes(file_, buffer_.get() + left, capacity - left);
    filled_ = begin_ + left + got;
    if (const char* const end = find_end()) return end;
    if (left + got == capacity) skip_line();
    return filled_ == begin_ || std::ferror(file_) ? nullptr : filled_;
  }

  void skip_line() {
    is_cut_ = true;
    for (int byte = std::getc(file_); byte != '\n' && byte != EOF;) byte = std::getc(file_);
  }

  FILE* file_;
  std::unique_ptr<char[]> buffer_;
  const char* begin_ = buffer_.get();  // of what has not been delivered
  const char* filled_ = begin_;
  std::uint64_t number_ = 0;
  bool is_cut_ = false;
};

// Takes fields off the front of a line. Each call returns whether the field is there, and takes
// nothing if it is not.
class fields {
 public:
  explicit fields(std::string_view line) : at_(line.data()), end_(at_ + line.size()) {}

  bool at_end() const { return at_ == end_; }
  std::string_view rest() const { return {at_, std::size_t(end_ - at_)}; }

  // Blanks and tabs, at least one.
  bool blanks() {
    const char* const from = at_;
    while (at_ != end_ && (*at_ == ' ' || *at_ == '\t')) ++at_;
    return at_ != from;
  }

  // Blanks, if any, and the end of the line.
  bool end() {
    blanks();
    return at_end();
  }

  bool text(std::string_view wanted) {
    if (!rest().starts_with(wanted)) return false;
    at_ += wanted.size();
    return true;
  }

  // Characters up to the next blank, at least one.
  bool word(std::string_view& found) {
    const char* const from = at_;
    while (at_ != end_ && *at_ != ' ' && *at_ != '\t') ++at_;
    found = {from, std::size_t(at_ - from)};
    return at_ != from;
  }

  // Decimal digits of any number, at least one.
  bool digits() {
    const char* const from = at_;
    while (at_ != end_ && *at_ >= '0' && *at_ <= '9') ++at_;
    return at_ != from;
  }

  // Numbers that fit into 64 bits: of digits; of hexadecimal digits; of those after "0x".
  bool decimal(std::uint64_t& value) { return number(at_, value, 10); }
  bool hexadecimal(std::uint64_t& value) { return number(at_, value, 16); }
  bool address(std::uint64_t& value) {
    const bool has_prefix = end_ - at_ > 2 && at_[0] == '0' && (at_[1] | 0x20) == 'x';
    return has_prefix && number(at_ + 2, value, 16);
  }

 private:
  bool number(const char* from, std::uint64_t& value, int base) {
    const std::from_chars_result read = std::from_chars(from, end_, value, base);
    if (read.ec != std::errc()) return false;
    at_ = read.ptr;
    return true;
  }

  const char* at_;
  const char* end_;
};

}  // namespace vqtrace
