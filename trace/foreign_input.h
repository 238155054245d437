// Traces of other tools to be read, by name.
#pragma once

#include <memory>
#include <string>

#include "coder/errors.h"
#include "trace/command_error.h"
#include "trace/formats/formats.h"
#include "trace/input.h"

namespace vqtrace {

// One input, of which the next access can be seen before it is taken.
class foreign_input {
 public:
  // What ends an input before its end.
  struct fault {
    std::string message;
  };

  foreign_input(const std::string& name, const foreign_format& format, bool skip_bad, bool watched)
      : stream_(name, watched), format_(format), reader_(format.reader(stream_.file(), skip_bad)) {}

  // The next access, null at the end. It stays until pop(). Throws `fault` once all accesses
  // before it have been taken.
  const memory_access* next() {
    if (at_ == size_ && !has_ended_) fill();
    return has_ended_ ? nullptr : &accesses_[at_];
  }
  void pop() { ++at_; }

  const std::string& name() const { return stream_.name(); }
  std::uint64_t skipped() const { return reader_->skipped(); }

 private:
  void fill() {
    at_ = 0;
    try {
      size_ = reader_->read(accesses_, std::size(accesses_));
    } catch (const bad_record& bad) {
      stream_.end_progress();
      if (std::feof(stream_.file())) require_whole();  // else it has been cut off
      throw fault{name() + ": " + format_.record + " " + std::to_string(bad.number) +
                  (bad.goes_back ? " is of an earlier time than the one before"
                                 : std::string(" fits no rule of ") + format_.name)};
    }
    stream_.count(size_);
    has_begun_ |= size_ > 0;
    if (size_ > 0) return;
    has_ended_ = true;
    stream_.end_progress();
    require_whole();
  }

  void require_whole() {
    if (!stream_.failed()) return;
    // With nothing read, there is nothing to write.
    const std::string message = name() + ": " + vqpack::detail::cannot_read;
    if (!has_begun_) throw command_error(message);
    throw fault{message};
  }

  input_stream stream_;
  const foreign_format& format_;
  std::unique_ptr<access_reader> reader_;
  memory_access accesses_[256];
  std::size_t at_ = 0, size_ = 0;
  bool has_begun_ = false, has_ended_ = false;
};

}  // namespace vqtrace
