// Traces to be written, by name.
#pragma once

#include <optional>
#include <span>
#include <string>

#include "coder/velk_writer.h"
#include "coder/vqcomp.h"
#include "fileio/new_file.h"
#include "trace/input.h"

namespace vqtrace {

// How a trace is written.
struct trace_form {
  int version;  // the file type, 0 to 5; -1: text
  bool coded;   // and not raw
};

// The form of a trace that is read; or, where `version` is given (-1: text), that file type with
// the coding of the trace if the type allows it.
trace_form form_for(input& trace, std::optional<int> version);

// Which lines of text get counts that is made of a trace: all if that has counts, else those with
// another than 1.
vqpack::detail::velk_counts counts_for(input& trace);

// Whether the input of a command shows how far it has been read: not while its output goes to
// standard output, where it could come between.
inline bool shows_progress(bool quiet, const std::string& out) { return !quiet && out != "-"; }

// Throws `command_error` "Input and output are the same file" if `out` is one that `in`, the name
// of an input, is read from.
void refuse_same_file(const std::string& in, const std::string& out);

// A file that gets its name when it is whole; "-" is standard output. Names of *.gz and *.bz2 are
// compressed. Interrupted by a signal, the program leaves no unfinished file. There is one at a
// time.
class output_file {
 public:
  // Throws `command_error` if it cannot be opened.
  explicit output_file(const std::string& name);
  ~output_file();
  output_file(const output_file&) = delete;
  output_file& operator=(const output_file&) = delete;

  FILE* file() const { return file_->stream(); }
  // Throws `command_error` unless all was written.
  void write(const void* bytes, std::size_t size);
  void commit();
  [[noreturn]] void fail_to_write() const;

 private:
  std::string name_;
  std::optional<new_file> file_;
};

// One trace.
class output {
 public:
  // `header` must outlive the output, which sets its totals of transactions and drops its names.
  // Throws `command_error` where the file cannot be opened or cannot hold such a header.
  output(const std::string& name, trace_form form, PRUV_header_t& header,
         vqpack::detail::velk_counts counts);
  ~output();

  // Throws `command_error` for a transaction that the file type cannot hold, and for failed writes.
  void put(std::span<VQtransaction> transactions);

  // Completes the file and gives it its name. Throws `command_error`.
  void finish();

 private:
  void put_text(std::span<const VQtransaction> transactions);
  [[noreturn]] void refuse(const VQcomp_error& error) const;

  std::string name_;
  PRUV_header_t& header_;
  output_file file_;
  std::optional<vqpack::detail::velk_writer> text_;
  std::optional<VQcomp> coder_;
};

}  // namespace vqtrace
