// Traces of other tools to be read, by name.
#pragma once

#include <memory>
#include <string>

#include "coder/errors.h"
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
    if (at_ == size_) fill();
    return size_ == 0 ? nullptr : &accesses_[at_];
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
      throw fault{name() + ": " + format_.record + " " + std::to_string(bad.number) +
                  " fits no rule of " + format_.name};
    }
    stream_.count(size_);
    if (size_ > 0) return;
    stream_.end_progress();
    if (stream_.failed()) throw fault{name() + ": " + vqpack::detail::cannot_read};
  }

  input_stream stream_;
  const foreign_format& format_;
  std::unique_ptr<access_reader> reader_;
  memory_access accesses_[256];
  std::size_t at_ = 0, size_ = 0;
};

}  // namespace vqtrace
