// vqpack, the command: converts between VELK text and QUBIX files, and between QUBIX file types.
// Read from `main`, at the end, upwards.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <memory>
#include <optional>

#include "coder/errors.h"
#include "coder/velk_writer.h"
#include "coder/vqcomp.h"
#include "driver/arguments.h"
#include "driver/metadata.h"
#include "fileio/program.h"
#include "fileio/progress.h"
#include "fileio/xfopen.h"

using namespace vqpack::detail;

namespace {

const char* const long_help[] = {
    "Vqpack is a tool to convert between text VELK/PRUV and QUBIX files,",
    "and between QUBIX file types.  The command",
    "",
    "   vqpack [options] <infile> [<outfile>]",
    "",
    "converts <infile> (stdin if '-') to <outfile> (stdout if unspecified).",
    "If input is in QUBIX format, then output is in text format, unless -v is",
    "specified (see below).  If input is text, then output is in QUBIX form.",
    "",
    "Extensions .gz or .bz2 on <infile> and <outfile> cause gzip/bzip2 to be",
    "done to input/output.  If output is in QUBIX format, doing gzip/bzip2 to",
    "output on the fly is deprecated, as is output to stdout.  Doing either",
    "may fail for some QUBIX types if file rewinding is needed.  Recommended",
    "practice is output to file, with gzip/bzip2 in a later pass.",
    "",
    "Options may come before, after or between infile and outfile as long",
    "as a switch name and its value are together.  Options are:",
    "",
    "-v #       Output QUBIX type #",
    "-c         Use QUBIX compression on output (not valid with -v 0 or text)",
    "-nc        Use raw binary on output (not valid with -v 1)",
    "-b #       Begin: skip first # transactions of input",
    "-e #       End: stop after first # transactions of input (incl. skip)",
    "-m* #      Set metadata field to # (versions 2+); * one of acilrst:",
    "           a=address length; c=cycles; i=instructions; l=line size;",
    "           r=transactions (requests); s=cache size; t=threads",
    "-p         Display input metadata on stderr",
    "-t <text>  Append text to header comment (versions 4+)",
    "-nt        Ignore any existing header comment",
    "-s <file>  Get sensitivity data from <file>.  Each line of <file> has 7",
    "           numbers separated by white space: config type, MLC size,",
    "           LLC size, instructions, cycles, LLC refs, and LLC misses.",
    "           Put this data in the header of the output (-v 2+ only).",
    "           Sensitivity data in <infile> is ignored.",
    "-S <file>  Like -s, but also include any sensitivity data in <infile>.",
    "",
    "Exit status: 0 for success, -1 for unmitigated failure, 1 for failure in",
    "which the partial output was properly formed and closed, but may be bad."};

// An output that is also read would be emptied, or would grow forever.
void refuse_shared_file(const run_settings& run) {
  struct stat read, written;
  if (!xfstat(run.outfile ? run.outfile : "stdout", "w", written)) return;
  if (xfstat(run.from_stdin() ? "stdin" : run.infile, "r", read) && same_file(read, written))
    throw refusal{"Input and output are the same file"};
  if (run.edits.sensitivity && fstat(fileno(run.edits.sensitivity.get()), &read) == 0 &&
      same_file(read, written))
    throw refusal{"Sensitivity file and output are the same file"};
}

// The file type bits of st_mode for what xfopen(name, mode) would open; 0 for commands.
mode_t kind_of_file(const char* name, const char* mode) {
  struct stat status;
  return xfstat(name, mode, status) ? status.st_mode & S_IFMT : 0;
}

bool is_pipe(mode_t kind) { return kind == S_IFIFO || kind == S_IFSOCK; }

// A named pipe has lost its contents when it is opened again. A command runs again.
bool is_read_once(const char* name) { return is_pipe(kind_of_file(name, "r")); }

// Buffers of the input and of a binary output, large so that system calls are few. They must
// outlive the streams.
constexpr std::size_t stream_buffer = 1 << 16;
char input_buffer[stream_buffer];
char output_buffer[stream_buffer];

// Gives a newly opened stream a buffer. Standard error, which can be the output, stays unbuffered,
// so that messages keep their order.
void set_buffer(FILE* file, char (&buffer)[stream_buffer]) {
  if (file != stderr) std::setvbuf(file, buffer, _IOFBF, sizeof buffer);
}

file_ptr open_input(const run_settings& run) {
  file_ptr in;
  if (run.from_stdin())
    in.reset(stdin);
  else if (kind_of_file(run.infile, "r") != S_IFDIR)
    in.reset(xfopen(run.infile, "r"));
  if (!in) throw refusal{"Can't open input file"};
  set_buffer(in.get(), input_buffer);
  return in;
}

file_ptr open_output(const run_settings& run) {
  file_ptr out(run.outfile ? xfopen(run.outfile, "w") : stdout);
  if (!out) throw refusal{"Can't open output file"};
  // A write fails at the size limit of files and when a compressor or command ends early. A closed
  // pipe on standard output ends the program without a message.
  std::signal(SIGXFSZ, SIG_IGN);
  if (out.get() != stdout) std::signal(SIGPIPE, SIG_IGN);
  return out;
}

void refuse_impossible(const run_settings& run, FILE* out) {
  if (run.edits.sensitivity && !run.stores_header())
    throw refusal{
        "Sensitivity data not allowed unless explicitly making a version 2-or-greater QUBIX"};
  if (run.stores_header() && out == stdout)
    throw refusal{"Can't output version 2 or higher to stdout"};
  if (run.compression_flag() == -1)
    throw refusal{"Selected compress and version options incompatible"};
}

[[noreturn]] void fail_to_write() {
  throw VQcomp_error{cannot_write, 0, 0, false, VQfault::cannot_write};
}

[[noreturn]] void fail_to_read(bool closed) {
  throw VQcomp_error{cannot_read, 0, 0, closed, VQfault::cannot_read};
}

// Whether an input that has been read to its end got there by a failure: of a read, or of the
// process that feeds the stream.
bool ended_by_failure(FILE* in) { return std::ferror(in) != 0 || xfwait(in) != 0; }

// The input of a run: its reader, and the line that shows how far it has been read.
class trace_input {
 public:
  // `file` is the open input, and `name` opens it again. Throws VQcomp_error if it cannot be read.
  trace_input(const char* name, file_ptr& file, bool watched)
      : name_(name), file_(file), watched_(watched) {
    start();
  }

  bool is_text() const { return reader_->is_text(); }

  // Counting may read the whole input, which is then opened again. Throws VQcomp_error, and
  // `refusal` when the input does not open again.
  std::unique_ptr<PRUV_header_t> read_header(bool want_count) {
    std::unique_ptr<PRUV_header_t> header(reader_->pruv_header(want_count));
    if (reader_->needs_rewind()) {
      count_failed_ = ended_by_failure(file_.get());
      reopen();
    }
    return header;
  }

  // Reads as velk_reader does. The VQcomp_error that it throws has `closed` set.
  std::size_t read(VQtransaction* transactions, std::size_t size) {
    try {
      const std::size_t delivered = reader_->read(transactions, size);
      if (progress_) progress_->count(delivered);
      if (delivered == 0) progress_.reset();
      return delivered;
    } catch (VQcomp_error& error) {
      progress_.reset();
      error.closed = true;
      throw;
    }
  }

  // After the end of the input: whether it could not be read completely.
  bool failed() const { return count_failed_ || ended_by_failure(file_.get()); }

 private:
  void start() {
    reader_.emplace(file_.get(), nullptr);
    if (watched_) progress_.emplace(file_.get());
    if (std::feof(file_.get()) && ended_by_failure(file_.get())) fail_to_read(false);
  }

  void reopen() {
    progress_.reset();
    reader_.reset();
    file_.reset();
    file_.reset(xfopen(name_, "r"));
    if (!file_) throw refusal{"Can't reopen input"};
    set_buffer(file_.get(), input_buffer);
    start();
  }

  const char* name_;
  file_ptr& file_;
  bool watched_;
  bool count_failed_ = false;
  std::optional<velk_reader> reader_;
  std::optional<progress_line> progress_;
};

// Consecutive transactions of the input, read at once.
class selected_batch {
 public:
  selected_batch(trace_input& input, unsigned long long begin, unsigned long long end)
      : input_(input), begin_(begin), end_(end) {}

  // Reads the next batch; false at the end of the input. Throws what trace_input::read() does.
  bool next() {
    index_ += read_;
    read_ = input_.read(transactions_, std::size(transactions_));
    return read_ > 0;
  }

  // Those whose 0-based positions in the input lie in [begin, end).
  VQtransaction* begin() { return transactions_ + from_start(begin_); }
  VQtransaction* end() { return std::max(begin(), transactions_ + from_start(end_)); }

  // The 0-based position of one of them in the input.
  unsigned long long position(const VQtransaction* t) const {
    return index_ + static_cast<unsigned long long>(t - transactions_);
  }

 private:
  std::size_t from_start(unsigned long long position) const {
    return position <= index_ ? 0
                              : std::size_t(std::min<unsigned long long>(position - index_, read_));
  }

  trace_input& input_;
  unsigned long long begin_, end_;
  unsigned long long index_ = 0;  // of the first
  std::size_t read_ = 0;
  VQtransaction transactions_[256];
};

// Hands transactions to the compressor and writes the blocks that become full.
void record_batch(VQcomp& compressor, FILE* out, VQtransaction* first, const VQtransaction* last) {
  while (first != last) {
    first += compressor.record(first, std::size_t(last - first));
    if (const auto ready = std::size_t(compressor.ready())) {
      if (std::fwrite(compressor.buffer.get(), 1, ready, out) != ready) fail_to_write();
      compressor.reset_buffer();
    }
  }
}

// Reads all of the input and hands the selected transactions to the compressor. Returns the error
// of the input that ended the reading, if there is one.
std::optional<VQcomp_error> record_selected(trace_input& input, VQcomp& compressor, FILE* out,
                                            const run_settings& run) {
  selected_batch batch(input, run.begin, run.end);
  for (;;) {
    try {
      if (!batch.next()) return std::nullopt;
    } catch (const VQcomp_error& error) {
      return error;
    }
    record_batch(compressor, out, batch.begin(), batch.end());
  }
}

// The message about totals that the file does not hold as it should; null if it does.
const char* totals_warning(VQtotals totals) {
  switch (totals) {
    case VQtotals::count_differs:
      return "Need to change transaction count: output not seekable";
    case VQtotals::address_length_differs:
      return "Can't update address size: output not seekable";
    case VQtotals::header_resized:
      return "UNEXPECTED: PRUV header adjustment changed header size - left unchanged";
    default:
      return nullptr;
  }
}

// Codes the selected transactions as a QUBIX file of type `version`. Starts with the totals that
// the header holds and changes them to what was written. Throws VQcomp_error: with `closed` set for
// an error of the input, after which the output is complete, else incomplete.
void compress_stream(trace_input& input, FILE* out, int version, PRUV_header_t& header,
                     const run_settings& run) {
  constexpr int block_size = 1024;
  set_buffer(out, output_buffer);
  VQcomp compressor(nullptr, version, &header, block_size, run.window);
  const auto input_error = record_selected(input, compressor, out, run);
  const VQcomp_summary summary = compressor.finish(out, &header);
  if (const char* const warning = totals_warning(summary.totals)) std::cerr << warning << std::endl;
  if (summary.contexts != 0 && !run.quiet)
    std::cerr << "QUBIX compressor used " << summary.contexts << " contexts with average distance "
              << summary.avg_distance << std::endl;
  if (input_error) throw *input_error;
}

// Prints the selected transactions as text, one a line, with their counts if `with_counts`. Throws
// VQcomp_error, with `closed` set for an error of the input.
void uncompress_stream(trace_input& input, FILE* out, const PRUV_header_t& header, bool with_counts,
                       const run_settings& run) {
  velk_writer text(out, header.trans_names, header.trans_name_count,
                   with_counts ? velk_counts::all : velk_counts::none);
  selected_batch batch(input, run.begin, run.end);
  try {
    while (batch.next()) {
      for (const VQtransaction& t : batch) {
        if (t.trans >= header.trans_name_count)
          throw VQcomp_error{"Transaction number out of range",
                             static_cast<long long>(batch.position(&t)) + 1, 0, false};
        text.put(t);
      }
    }
  } catch (const VQcomp_error&) {
    text.flush();  // a failure shows when the output is closed
    throw;
  }
  if (!text.flush()) fail_to_write();
}

// Progress is shown only where nothing else goes to the terminal: neither the output nor that of a
// pager, for example, which reads it through a pipe.
bool shows_progress(const run_settings& run, FILE* out) {
  if (run.quiet || !isatty(STDERR_FILENO) || isatty(fileno(out))) return false;
  const mode_t kind = kind_of_file(run.outfile ? run.outfile : "stdout", "w");
  return kind != 0 && !is_pipe(kind);
}

// Counting takes another pass over the input: it needs a use for the count, and an input that can
// be read twice.
bool needs_count(const run_settings& run, FILE* in) {
  return (run.show_metadata || run.stores_header()) && in != stdin && !is_read_once(run.infile);
}

// Converts the open input. Returns the exit status; throws VQcomp_error and `refusal`.
int convert(run_settings& run, file_ptr& in, FILE* out) {
  trace_input input(run.infile, in, shows_progress(run, out));
  const bool text_input = input.is_text();
  const auto header = input.read_header(needs_count(run, in.get()));
  if (run.show_metadata) std::cerr << "METADATA FROM INPUT:" << std::endl << *header;

  const int version = text_input && run.version == -1 ? 1 : run.version;
  const bool counts_stored = header->version == 3 || header->version == 5;
  header->compression = unsigned(run.compression_flag());
  edit_header(*header, run.edits);
  if (version == -1) {
    uncompress_stream(input, out, *header, counts_stored, run);
  } else {
    header->max_contexts = run.max_contexts;
    compress_stream(input, out, version, *header, run);
  }
  if (input.failed()) fail_to_read(true);
  return success;
}

// Prints an error that ended the conversion; returns the exit status. For a failed read, the
// position would mislead: the fault does not lie in the trace.
int report(const VQcomp_error& error) {
  std::cerr << (error.fault == VQfault::cannot_read ? error.msg : error.str()) << std::endl;
  if (!error.closed) return failure;
  std::cerr << std::endl
            << "Error found on input, so the output was closed with what it already had."
            << std::endl
            << "Output is legal QUBIX or text VELK/PRUV file, but" << std::endl
            << "it is unknown how much of the input is corrupt." << std::endl
            << "The entire input, even at the start, could be bad." << std::endl
            << "Therefore, the output could be garbage -- USE AT YOUR OWN RISK!" << std::endl;
  return closed_failure;
}

// Returns `status`; but throws VQcomp_error if that calls the output complete or well formed and
// not all of it was written. On a closed descriptor not even an empty output counts as written.
int close_files(file_ptr& in, file_ptr& out, int status) {
  in.reset();
  const bool writable = (fcntl(fileno(out.get()), F_GETFL) & O_ACCMODE) != O_RDONLY;
  const bool written = std::ferror(out.get()) == 0;
  const bool closed = xfclose(out.release()) == 0;
  if (status != failure && !(writable && written && closed)) fail_to_write();
  return status;
}

// Prints a refusal, or the help if `msg` is null; returns `status`.
int complain(const char* msg, int status) {
  if (msg) {
    std::cerr << msg << std::endl << std::endl << "See 'vqpack -h' for help" << std::endl;
  } else {
    for (const char* const line : long_help) std::cerr << line << std::endl;
  }
  return status;
}

// Returns what `work` returns, an exit status; prints what it throws and returns the status for
// that.
template <class Work>
int exit_status(Work work) {
  try {
    return work();
  } catch (const refusal& refused) {
    return complain(refused.message.c_str(), failure);
  } catch (const help_request&) {
    return complain(nullptr, success);
  } catch (const VQcomp_error& error) {
    return report(error);
  }
}

// Returns the exit status.
int run_command(int argc, char** argv) {
  run_settings run;
  file_ptr in, out;  // still open while exit_status() prints a refusal
  return exit_status([&] {
    scan_arguments(argc, argv, run);
    in = open_input(run);
    refuse_shared_file(run);
    out = open_output(run);
    refuse_impossible(run, out.get());
    const int status = exit_status([&] { return convert(run, in, out.get()); });
    return close_files(in, out, status);
  });
}

}  // namespace

int main(int argc, char** argv) {
  return run_program([&] { return run_command(argc, argv); });
}
