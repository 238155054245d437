// Traces to be read, by name.
#pragma once

#include <cstddef>
#include <cstdio>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "coder/vqcomp.h"
#include "fileio/progress.h"
#include "fileio/xfopen.h"

namespace vqtrace {

// The name of an input as xfopen() takes it: "-" is standard input.
inline const char* xfopen_name(const std::string& name) {
  return name == "-" ? "stdin" : name.c_str();
}

// A stream named as vqpack(1) names inputs, "-" for standard input: a file of any kind, compressed
// or not, or a command. Shows a progress line where it is `watched` and standard error is a
// terminal.
class input_stream {
 public:
  // Throws `command_error` if it cannot be opened.
  input_stream(const std::string& name, bool watched);

  const std::string& name() const { return name_; }
  FILE* file() const { return file_.get(); }

  // Its length in bytes as it is stored; nothing where that is not a file.
  std::optional<long long> stored_bytes() const;

  // Counts for the progress line.
  void count(std::size_t transactions) {
    if (progress_) progress_->count(transactions);
  }

  // Wipes the progress line, which must be done before anything is printed.
  void end_progress() { progress_.reset(); }

  // At the end of the stream: whether a read failed, or the process that feeds it.
  bool failed() { return std::ferror(file()) != 0 || xfwait(file()) != 0; }

 private:
  std::string name_;
  std::unique_ptr<char[]> buffer_;
  file_ptr file_;
  std::optional<progress_line> progress_;
};

// A trace, VELK text or QUBIX.
class input {
 public:
  // Opens a trace and reads its header. Throws `command_error`.
  input(const std::string& name, bool watched);

  const input_stream& stream() const { return stream_; }
  const std::string& name() const { return stream_.name(); }
  // The file type; -1: text.
  int version() const { return version_; }
  bool is_text() const { return version_ < 0; }
  // The header, with `trans_count` -1 where it does not say how many there are. Outputs may change
  // what they write of it.
  PRUV_header_t& header() { return *header_; }

  // Whether it stores counts; of text, whether the first lines, 256 of them, have others than 1.
  // To be asked before the first read().
  bool has_counts();

  // Reads up to `size` transactions; returns how many, 0 at the end only. Throws VQcomp_error.
  std::size_t read(VQtransaction* transactions, std::size_t size);

  // The line to print for an error of this input.
  std::string describe(const VQcomp_error& error) const;

 private:
  input_stream stream_;
  std::optional<velk_reader> reader_;
  std::unique_ptr<PRUV_header_t> header_;
  int version_ = -1;
  // What has_counts() has read ahead.
  VQtransaction ahead_[256];
  std::size_t ahead_at_ = 0, ahead_end_ = 0;
  std::optional<VQcomp_error> ahead_error_;
};

// Calls use(transactions) with all of a trace in order, as std::span<VQtransaction>. Returns false
// if the trace has a fault, which is printed; what came before it has been used.
template <class Use>
bool for_each_batch(input& trace, Use use) {
  VQtransaction transactions[256];
  for (;;) {
    std::size_t size = 0;
    try {
      size = trace.read(transactions, std::size(transactions));
    } catch (const VQcomp_error& error) {
      std::cerr << trace.describe(error) << '\n';
      return false;
    }
    if (size == 0) return true;
    use(std::span(transactions, size));
  }
}

}  // namespace vqtrace
