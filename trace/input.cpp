#include "trace/input.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "coder/errors.h"
#include "trace/command_error.h"

using namespace vqpack::detail;

namespace vqtrace {

namespace {

constexpr std::size_t stream_buffer = 1 << 16;

file_ptr open_file(const std::string& name) {
  const char* const file = xfopen_name(name);
  static bool is_stdin_taken = false;
  if (name == "-" && std::exchange(is_stdin_taken, true)) return nullptr;
  struct stat status;
  if (xfstat(file, "r", status) && S_ISDIR(status.st_mode)) return nullptr;
  return file_ptr(xfopen(file, "r"));
}

}  // namespace

input_stream::input_stream(const std::string& name, bool watched)
    : name_(name), buffer_(new char[stream_buffer]), file_(open_file(name)) {
  if (!file_) throw command_error(name, "Can't open input file");
  std::setvbuf(file(), buffer_.get(), _IOFBF, stream_buffer);
  if (watched && isatty(STDERR_FILENO)) progress_.emplace(file());
}

std::optional<long long> input_stream::stored_bytes() const {
  struct stat status;
  const bool is_known = xfstat(xfopen_name(name_), "r", status);
  if (!is_known || !S_ISREG(status.st_mode)) return std::nullopt;
  return status.st_size;
}

input::input(const std::string& name, bool watched) : stream_(name, watched) {
  try {
    reader_.emplace(stream_.file(), nullptr);
    header_.reset(reader_->pruv_header(false));
    version_ = header_->version;
    const bool is_empty = std::feof(stream_.file()) != 0;
    if (is_empty && stream_.failed()) fail(VQfault::cannot_read, cannot_read);
  } catch (const VQcomp_error& error) {
    throw command_error(describe(error));
  }
}

bool input::has_counts() {
  if (!is_text()) return version_ == 3 || version_ == 5;
  try {
    ahead_end_ = reader_->read(ahead_, std::size(ahead_));
  } catch (const VQcomp_error& error) {
    ahead_error_ = error;
  }
  return std::any_of(ahead_, ahead_ + ahead_end_,
                     [](const VQtransaction& t) { return t.count != 1; });
}

std::size_t input::read(VQtransaction* transactions, std::size_t size) {
  if (ahead_at_ < ahead_end_) {
    const std::size_t delivered = std::min(size, ahead_end_ - ahead_at_);
    std::copy_n(ahead_ + ahead_at_, delivered, transactions);
    ahead_at_ += delivered;
    return delivered;
  }
  try {
    if (ahead_error_) throw *ahead_error_;
    const std::size_t delivered = reader_->read(transactions, size);
    stream_.count(delivered);
    if (delivered == 0) {
      stream_.end_progress();
      if (stream_.failed()) fail(VQfault::cannot_read, cannot_read);
    }
    return delivered;
  } catch (const VQcomp_error&) {
    stream_.end_progress();
    throw;
  }
}

std::string input::describe(const VQcomp_error& error) const {
  // For a failed read, the position would mislead: the fault does not lie in the trace.
  const bool has_place = error.fault != VQfault::cannot_read;
  return name() + ": " + (has_place ? error.str() : error.msg);
}

}  // namespace vqtrace
