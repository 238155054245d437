// vqpack, the command: converts between VELK text and QUBIX files, and between QUBIX file types.
// Read from `main`, at the end, upwards.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "coder/line_format.h"
#include "coder/vqcomp.h"
#include "driver/metadata.h"
#include "driver/progress.h"
#include "fileio/xfopen.h"

namespace {

// Exit statuses: main returns one of these.
constexpr int success = 0;
constexpr int closed_failure = 1;  // the output is well formed and holds what came before the fault
constexpr int failure = -1;

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

// Thrown where a run cannot go on as it was asked for.
struct refusal {
  std::string message;
};

// Thrown where the help is asked for.
struct help_request {};

// The columns of `compress_ok`: which way of coding the options ask for.
enum compression_choice { choose_raw, choose_context, choose_default };

// The header's `compression` for an output file type and a choice; -1: impossible.
constexpr int compress_ok[6][3] = {{0, -1, 0}, {-1, 1, 1}, {0, 1, 1},
                                   {0, 1, 1},  {0, 1, 1},  {0, 1, 1}};
constexpr int last_version = 5;
constexpr int first_version_with_header = 2;

// What the command line asks for.
struct run_settings {
  const char* infile = nullptr;   // "-" or null: standard input
  const char* outfile = nullptr;  // null: standard output
  int version = -1;               // file type of the output; -1: not given
  compression_choice compression = choose_default;
  unsigned long long begin = 0;  // of the transactions to convert, 0-based
  unsigned long long end = 0x3FFFFFFF80000000;
  unsigned window = 65535;  // bytes
  unsigned max_contexts = 16383;
  bool quiet = false;
  bool show_metadata = false;
  header_edits edits;

  bool from_stdin() const { return !infile || std::strcmp(infile, "-") == 0; }
  // What goes into the header's `compression`; -1: impossible.
  int compression_flag() const { return version == -1 ? 1 : compress_ok[version][compression]; }
};

// A number as options take it: hexadecimal after 0x, octal after 0, else decimal; at most 64 bits;
// white space may follow, nothing may stand before it.
std::optional<unsigned long long> parse_number(std::string_view text) {
  text = text.substr(0, text.find_last_not_of(" \t\n\v\f\r") + 1);
  int base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  } else if (text.starts_with('0')) {
    base = 8;
  }
  unsigned long long value;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

constexpr std::string_view switches = "SstdvbeCm";  // that take a value
constexpr std::string_view text_switches = "Sst";   // of them, those whose value is no number

// Acts on one switch. `value` and `number` are its value, where it takes one.
void act_on_switch(const char* argument, const char* value, unsigned long long number,
                   run_settings& run) {
  const char letter = argument[1];
  const std::string two_letters(argument + 1, argument[2] ? 2 : 1);
  const auto unknown = [](const std::string& name) {
    return refusal{"-" + name + " unknown switch"};
  };
  switch (letter) {
    case 'v':
      if (number > last_version) throw refusal{"Version (-v) must be 0 - 5\n"};
      run.version = int(number);
      break;
    case 'c':
      run.compression = choose_context;
      break;
    case 'b':
      run.begin = number;
      break;
    case 'e':
      run.end = number;
      break;
    case 'd':
      run.window = unsigned(number);
      break;
    case 'C':
      run.max_contexts = unsigned(number);
      break;
    case 'p':
      run.show_metadata = true;
      break;
    case 'q':
      run.quiet = true;
      break;
    case 't':
      run.edits.comment = value;
      break;
    case 'm':
      if (!find_metadata_field(argument[2])) throw unknown(two_letters);
      run.edits.metadata.push_back({find_metadata_field(argument[2]), number});
      break;
    case 'S':
      run.edits.merge_sensitivity = true;
      [[fallthrough]];
    case 's':
      run.edits.sensitivity.reset(std::fopen(value, "r"));
      if (!run.edits.sensitivity) throw refusal{unreadable_sensitivity};
      break;
    case 'n':
      switch (argument[2]) {
        case 'c':
          run.compression = choose_raw;
          break;
        case 'p':
          run.show_metadata = false;
          break;
        case 'q':
          run.quiet = false;
          break;
        case 't':
          run.edits.drop_comment = true;
          run.edits.comment = nullptr;
          break;
        default:
          throw unknown(two_letters);
      }
      break;
    case 'h':
      throw help_request{};
    default:
      throw unknown({letter});
  }
}

// Takes the arguments from left to right.
void scan_arguments(int argc, char** argv, run_settings& run) {
  for (int i = 1; i < argc; ++i) {
    const char* const argument = argv[i];
    if (argument[0] != '-') {
      if (run.outfile) throw refusal{"Multiple outputs specified"};
      (run.infile ? run.outfile : run.infile) = argument;
    } else if (argument[1] == '\0') {
      if (run.infile) throw refusal{"Multiple inputs specified"};
      run.infile = argument;
    } else {
      const char letter = argument[1];
      const char* value = nullptr;
      unsigned long long number = 0;
      if (switches.find(letter) != switches.npos) {
        if (++i == argc) throw refusal{std::string("-") + letter + " requires a value"};
        value = argv[i];
        if (text_switches.find(letter) == text_switches.npos) {
          const auto parsed = parse_number(value);
          if (!parsed)
            throw refusal{std::string("-") + letter +
                          " takes a non-negative number without spurious text"};
          number = *parsed;
        }
      }
      act_on_switch(argument, value, number, run);
    }
  }
}

// A file that is opened must not become a standard stream that was closed: messages would go into
// an output. What takes those places fails as a closed descriptor does.
void occupy_standard_streams() {
  for (const int place : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(place, F_GETFD) == -1)
      static_cast<void>(open("/dev/null", place == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

bool same_file(const struct stat& a, const struct stat& b) {
  return S_ISREG(a.st_mode) && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

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

// The kind of file that a name stands for in a stdio mode, as in st_mode; 0 for commands.
mode_t kind_of_file(const char* name, const char* mode) {
  struct stat status;
  return xfstat(name, mode, status) ? status.st_mode & S_IFMT : 0;
}

bool is_pipe(mode_t kind) { return kind == S_IFIFO || kind == S_IFSOCK; }

// A pipe with a name is gone when it is opened again. A command is run again.
bool is_read_once(const char* name) { return is_pipe(kind_of_file(name, "r")); }

// Buffers for the input and for a binary output, which make system calls few. They outlive the
// streams.
constexpr std::size_t stream_buffer = 1 << 16;
char input_buffer[stream_buffer];
char output_buffer[stream_buffer];

// Gives a stream that was just opened a buffer. Standard error, which an output may be, stays
// without one, so that messages come in turn.
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
  // A full file, or a compressor or command that ends early, is a failed write; a closed pipe on
  // standard output ends the program quietly.
  std::signal(SIGXFSZ, SIG_IGN);
  if (out.get() != stdout) std::signal(SIGPIPE, SIG_IGN);
  return out;
}

void refuse_impossible(const run_settings& run, FILE* out) {
  if (run.edits.sensitivity && run.version < first_version_with_header)
    throw refusal{
        "Sensitivity data not allowed unless explicitly making a version 2-or-greater QUBIX"};
  if (run.version >= first_version_with_header && out == stdout)
    throw refusal{"Can't output version 2 or higher to stdout"};
  if (run.compression_flag() == -1)
    throw refusal{"Selected compress and version options incompatible"};
}

// Conversion: the transactions of one run, from the reader to the output.

constexpr char cannot_read[] = "Can't read input";
constexpr char cannot_write[] = "Can't write output";
constexpr int block_size = 1024;

[[noreturn]] void fail_to_write() {
  throw VQcomp_error{cannot_write, 0, 0, false, VQfault::cannot_write};
}

[[noreturn]] void fail_to_read(bool closed) {
  throw VQcomp_error{cannot_read, 0, 0, closed, VQfault::cannot_read};
}

// Whether the end of an input that has been read is that of a failure: of a read, or of the process
// that feeds the stream.
bool ended_by_failure(FILE* in) { return std::ferror(in) != 0 || xfwait(in) != 0; }

// The input of a run: its reader, and the line that shows how far it has been read.
class trace_input {
 public:
  // `file` is the open input, and `name` opens it again. Throws VQcomp_error if nothing can be
  // read.
  trace_input(const char* name, file_ptr& file, bool watched)
      : name_(name), file_(file), watched_(watched) {
    start();
  }

  bool is_text() const { return reader_->is_text(); }

  // To count the transactions, the whole input may have to be read; it is then opened again.
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
      if (progress_ && delivered == 0) progress_->wipe();
      return delivered;
    } catch (VQcomp_error& error) {
      if (progress_) progress_->wipe();
      error.closed = true;
      throw;
    }
  }

  // Whether the input, read to its end, could not be read as a whole.
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

// Consecutive transactions of the input, which are handled together.
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

// Hands the selected transactions to the compressor. All of the input is read. Returns the error of
// the input that ended the reading, if there was one.
std::optional<VQcomp_error> record_selected(trace_input& input, VQcomp& compressor, FILE* out,
                                            unsigned long long begin, unsigned long long end) {
  selected_batch batch(input, begin, end);
  for (;;) {
    try {
      if (!batch.next()) return std::nullopt;
    } catch (const VQcomp_error& error) {
      return error;
    }
    record_batch(compressor, out, batch.begin(), batch.end());
  }
}

// What to say of totals that are not in their place; null where readers do not mind.
const char* complaint_of(VQtotals totals) {
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

// Codes the selected transactions as a QUBIX file of type `version`. Takes the header's totals as a
// first guess and changes them to what was written. Throws VQcomp_error: with `closed` set for an
// error of the input, after which the output is complete; else the output is not.
void compress_stream(trace_input& input, FILE* out, int version, PRUV_header_t* header,
                     unsigned window, bool quiet, unsigned long long begin,
                     unsigned long long end) {
  set_buffer(out, output_buffer);
  VQcomp compressor(nullptr, version, header, block_size, window);
  const auto input_error = record_selected(input, compressor, out, begin, end);
  const VQcomp_summary summary = compressor.finish(out, header);
  if (const char* const complaint = complaint_of(summary.totals))
    std::cerr << complaint << std::endl;
  if (summary.contexts != 0 && !quiet)
    std::cerr << "QUBIX compressor used " << summary.contexts << " contexts with average distance "
              << summary.avg_distance << std::endl;
  if (input_error) throw *input_error;
}

// Text lines on their way to the output.
class text_output {
 public:
  text_output(FILE* out, const PRUV_header_t& header, bool with_counts)
      : out_(out),
        format_(header.trans_names, header.trans_name_count, with_counts),
        lines_(std::max(block, 2 * format_.longest_line())) {
    std::setvbuf(out_, nullptr, _IONBF, 0);  // the lines are gathered here
  }

  void put(const VQtransaction& t) {
    if (lines_.size() - used_ < format_.longest_line() && !flush()) fail_to_write();
    used_ = std::size_t(format_.put(&lines_[used_], t) - lines_.data());
  }

  // False when not all could be written; the rest is not tried again.
  bool flush() {
    const std::size_t size = std::exchange(used_, 0);
    return std::fwrite(lines_.data(), 1, size, out_) == size;
  }

 private:
  static constexpr std::size_t block = 1 << 16;

  FILE* out_;
  vqpack::detail::line_format format_;
  std::vector<char> lines_;
  std::size_t used_ = 0;
};

// Prints the selected transactions as text, one a line, with their counts if `with_counts`. Throws
// VQcomp_error, with `closed` set for an error of the input.
void uncompress_stream(trace_input& input, FILE* out, const PRUV_header_t* header,
                       unsigned long long begin, unsigned long long end, bool with_counts) {
  text_output text(out, *header, with_counts);
  selected_batch batch(input, begin, end);
  try {
    while (batch.next()) {
      for (const VQtransaction& t : batch) {
        if (t.trans >= header->trans_name_count)
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

// Progress is shown on a terminal where nothing else is: not text, nor what reads a pipe or is a
// command, a pager, say.
bool shows_progress(const run_settings& run, FILE* out) {
  if (run.quiet || !isatty(STDERR_FILENO) || isatty(fileno(out))) return false;
  const mode_t kind = kind_of_file(run.outfile ? run.outfile : "stdout", "w");
  return kind != 0 && !is_pipe(kind);
}

// To count takes a pass of its own over the input: only what is going to show is counted, and only
// where the input can be read twice.
bool needs_count(const run_settings& run, FILE* in) {
  const bool shows = run.show_metadata || run.version >= first_version_with_header;
  return shows && in != stdin && !is_read_once(run.infile);
}

// Everything between the opening of the files and their closing. Returns the exit status.
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
    uncompress_stream(input, out, header.get(), run.begin, run.end, counts_stored);
  } else {
    header->max_contexts = run.max_contexts;
    compress_stream(input, out, version, header.get(), run.window, run.quiet, run.begin, run.end);
  }
  if (input.failed()) fail_to_read(true);
  return success;
}

// Prints an error that ended the conversion; returns the exit status. How far a failed read had
// come is not where the fault lies.
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

// Returns `status`. A success, or an output that is called well formed, is none unless all of it
// was written: throws VQcomp_error then. A closed descriptor takes nothing, not even an empty
// output.
int close_files(file_ptr& in, file_ptr& out, int status) {
  in.reset();
  const bool writable = (fcntl(fileno(out.get()), F_GETFL) & O_ACCMODE) != O_RDONLY;
  const bool written = std::ferror(out.get()) == 0;
  const bool closed = xfclose(out.release()) == 0;
  if (status != failure && !(writable && written && closed)) fail_to_write();
  return status;
}

// Prints a refusal, or the help when there is no message; returns `status`.
int complain(const char* msg, int status) {
  if (msg) {
    std::cerr << msg << std::endl << std::endl << "See 'vqpack -h' for help" << std::endl;
  } else {
    for (const char* const line : long_help) std::cerr << line << std::endl;
  }
  return status;
}

// Does `work` and returns the exit status that it ends with, or that of what it throws, which is
// printed.
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

// What a parent may have left unusual.
void prepare_process() {
  std::ios::sync_with_stdio(false);  // messages outlive an output that is named stderr
  occupy_standard_streams();
  std::signal(SIGCHLD, SIG_DFL);  // where it is ignored, the statuses of children are lost
}

// Returns the exit status.
int run_command(int argc, char** argv) {
  prepare_process();
  run_settings run;
  file_ptr in, out;  // closed after the message of a refusal
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

int run_out_of_memory() {
  constexpr char message[] = "Out of memory\n";
  static_cast<void>(!write(STDERR_FILENO, message, sizeof message - 1));
  return failure;
}

// The runtime keeps some memory for exceptions; where it has none, no exception comes into being.
[[noreturn]] void end_without_exception() {
  if (std::current_exception()) std::abort();
  std::_Exit(run_out_of_memory());
}

}  // namespace

int main(int argc, char** argv) {
  std::set_terminate(end_without_exception);
  try {
    return run_command(argc, argv);
  } catch (const std::bad_alloc&) {
    return run_out_of_memory();
  }
}
