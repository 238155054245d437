// velk_reader: text lines by the C library's own scanf, whose edge cases are those of the grammar,
// or a decompressor that is fed in chunks.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "bytes.h"
#include "errors.h"
#include "line_scan.h"
#include "record_format.h"
#include "stdio_bytes.h"
#include "text_source.h"
#include "vqcomp.h"

namespace vqpack::detail {

namespace {

// velk(5)
constexpr int max_line = 99;           // characters, newline included; the rest is another line
constexpr int max_counted_piece = 98;  // the same where lines are only counted
static_assert(text_source::readable >= line_scan::readable_after &&
              text_source::readable_before >= line_scan::readable_before);

// Takes the name, cut off after 19 characters, and the numbers of a line. False for a line that is
// no transaction. Agent and count are scanned in 64 bits, of which the lower 32 count: where `long`
// has 32 bits, "%x" and "%u" would take numbers that are too large for something else.
bool scan_line(const char* line, char (&name)[20], VQtransaction& t) {
  unsigned long long addr, agent, count;
  char next;
  const int fields = std::sscanf(line, "%19s%llx%llx %llu%c", name, &addr, &agent, &count, &next);
  if (fields < 3 || (fields == 5 && next != ' ' && next != '\n')) return false;
  t.addr = static_cast<long long>(addr);
  t.agent = static_cast<int>(agent);
  t.count = fields == 3 ? 1 : static_cast<unsigned>(count);
  return true;
}

}  // namespace

// What velk_reader does.
class trace_input {
 public:
  trace_input(FILE* file, velk_reader::name_parser str2num);

  std::size_t read(VQtransaction* transactions, std::size_t size);
  unsigned long long length() { return uncomp_ ? recorded_length() : count_lines(); }
  std::unique_ptr<PRUV_header_t> recorded_header();

  FILE* file() const { return file_; }
  bool is_text() const { return !uncomp_; }
  bool needs_rewind() const { return rewind_needed_; }

 private:
  static constexpr int chunk_size = 1024;

  void feed();
  VQcomp_error cause_of(VQcomp_error error) const;
  std::size_t read_records(VQtransaction* transactions, std::size_t size);
  std::size_t read_lines(VQtransaction* transactions, std::size_t size);
  const char* read_any_line(std::string_view line, VQtransaction& t) const;
  unsigned long long count_lines();
  unsigned long long recorded_length();
  unsigned long long trailing_length();
  text_source& text_lines();
  [[noreturn]] void fail_at_line(const char* msg, VQfault fault) const {
    fail(fault, msg, static_cast<long long>(line_no_));
  }

  FILE* file_;
  velk_reader::name_parser str2num_;
  bool usual_names_;  // those that the fast scan of lines knows
  bool rewind_needed_ = false;
  std::unique_ptr<text_source> text_;
  unsigned long long line_no_ = 0;    // text lines read or counted
  std::unique_ptr<VQuncomp> uncomp_;  // null for text, and after the end of a QUBIX stream
  unsigned char chunk_[chunk_size];   // the last piece of QUBIX input; the decoder points into it
  int chunk_len_ = 0;                 // bytes of it that the last read filled
};

trace_input::trace_input(FILE* file, velk_reader::name_parser str2num)
    : file_(file),
      str2num_(str2num ? str2num : velk_trans_str2num_type1),
      usual_names_(str2num_ == velk_trans_str2num_type1) {
  if (!file_) return;
  unsigned char first;
  if (read_bytes(file_, &first, 1) == 0) {
    if (std::ferror(file_)) fail(VQfault::cannot_read, cannot_read);
    return;
  }
  std::ungetc(first, file_);
  if (first == magic[0]) uncomp_ = std::make_unique<VQuncomp>();
}

text_source& trace_input::text_lines() {
  if (!file_) fail(VQfault::misuse, "No input file open");
  if (!text_) text_ = std::make_unique<text_source>(file_);
  return *text_;
}

// Hands the next chunk of the stream to the decompressor; an empty one is the end of the input, or
// of what can be read of it.
void trace_input::feed() {
  chunk_len_ = std::ferror(file_) ? 0 : int(read_bytes(file_, chunk_, sizeof chunk_));
  try {
    uncomp_->put(chunk_, chunk_len_);
  } catch (const VQcomp_error& error) {
    throw cause_of(error);
  }
}

// What the decompressor finds wrong with an input after a failed read comes from that.
VQcomp_error trace_input::cause_of(VQcomp_error error) const {
  if (!std::ferror(file_)) return error;
  return {cannot_read, error.record, 0, false, VQfault::cannot_read};
}

std::size_t trace_input::read(VQtransaction* transactions, std::size_t size) {
  return uncomp_ ? read_records(transactions, size) : read_lines(transactions, size);
}

std::size_t trace_input::read_records(VQtransaction* transactions, std::size_t size) {
  try {
    for (;; feed())
      if (const std::size_t delivered = uncomp_->read(transactions, size)) return delivered;
  } catch (const VQcomp_error& error) {
    throw cause_of(error);
  } catch (const VQcomp_done&) {
    uncomp_.reset();
    if (std::ferror(file_)) fail(VQfault::cannot_read, cannot_read);
    return 0;
  }
}

std::size_t trace_input::read_lines(VQtransaction* transactions, std::size_t size) {
  text_source& lines = text_lines();
  std::size_t done = 0;
  while (done < size && lines.look_ahead()) {
    if (usual_names_) {
      const char* at = lines.at();
      const std::size_t usual =
          line_scan::scan_usual_lines(at, lines.whole_before(), transactions + done, size - done);
      lines.skip_to(at);
      line_no_ += usual;
      done += usual;
      if (usual > 0) continue;
    }
    const std::string_view line = lines.piece(max_line);
    const bool is_whole = line.back() == '\n' || line.size() == max_line;
    if (!is_whole && lines.failed()) break;
    const char* const msg = read_any_line(line, transactions[done]);
    if (msg && done > 0) break;
    lines.skip(line.size());
    ++line_no_;
    if (msg) fail_at_line(msg, VQfault::bad_input);
    ++done;
  }
  if (done == 0) {
    ++line_no_;  // the attempt at the end counts, too
    if (lines.failed()) fail_at_line(cannot_read, VQfault::cannot_read);
  }
  return done;
}

// Returns the message of a refusal, or null.
const char* trace_input::read_any_line(std::string_view line, VQtransaction& t) const {
  char copy[max_line + 1] = {};
  line.copy(copy, line.size());
  char name[20];
  if (!scan_line(copy, name, t)) return "Bad input line";
  try {
    t.trans = str2num_(name);
  } catch (bool) {
    return "Unknown transaction";
  }
  return nullptr;
}

unsigned long long trace_input::count_lines() {
  text_source& lines = text_lines();
  for (;; ++line_no_) {
    const std::string_view piece = lines.piece(max_counted_piece);
    if (piece.empty()) return line_no_;
    rewind_needed_ = true;
    lines.skip(piece.size());
  }
}

unsigned long long trace_input::recorded_length() {
  for (;;) {
    try {
      const long long known = uncomp_->known_length();
      return known == -1 ? trailing_length() : static_cast<unsigned long long>(known);
    } catch (const VQcomp_block&) {
      feed();
    }
  }
}

// The count trailer, the last bytes of the input, which is spent then.
unsigned long long trace_input::trailing_length() {
  unsigned char trailer[trailer_bytes];
  if (fseeko(file_, -trailer_bytes, SEEK_END) == 0) {
    if (read_bytes(file_, trailer, sizeof trailer) != sizeof trailer) {
      if (std::ferror(file_)) fail(VQfault::cannot_read, cannot_read);
      fail(VQfault::bad_input, "Error reading length from QUBIX");
    }
  } else {
    while (chunk_len_ == chunk_size) chunk_len_ = int(read_bytes(file_, chunk_, sizeof chunk_));
    // After the end of a short chunk stands the end of the chunk before it.
    for (int i = 0; i < trailer_bytes; ++i)
      trailer[i] = chunk_[(chunk_len_ + chunk_size - trailer_bytes + i) % chunk_size];
  }
  uncomp_.reset();
  rewind_needed_ = true;
  return load_le<trailer_bytes>(trailer);
}

// The header of a QUBIX input.
std::unique_ptr<PRUV_header_t> trace_input::recorded_header() {
  for (;;) {
    try {
      std::unique_ptr<PRUV_header_t> header(uncomp_->read_pruv_header());
      if (!header) fail(VQfault::misuse, "PRUV header has already been taken");
      return header;
    } catch (const VQcomp_block&) {
      feed();
    }
  }
}

}  // namespace vqpack::detail

velk_reader::velk_reader(FILE* file, name_parser str2num)
    : state(std::make_unique<vqpack::detail::trace_input>(file, str2num)) {}

velk_reader::~velk_reader() = default;

PRUV_header_t* velk_reader::pruv_header(bool want_count) {
  std::unique_ptr<PRUV_header_t> header;
  if (state->is_text()) {
    header = std::make_unique<PRUV_header_t>();
    header->version = -1;
    header->trans_count = -1;
    header->use_default_trans_names();
  } else {
    header = state->recorded_header();
    if (header->trans_count != -1) return header.release();
  }
  if (want_count) header->trans_count = header->cycle_count = static_cast<long long>(length());
  return header.release();
}

unsigned long long velk_reader::length() { return state->length(); }

std::size_t velk_reader::read(VQtransaction* transactions, std::size_t size) {
  return state->read(transactions, size);
}

bool velk_reader::read(velk_trans_class& trans, long long& addr, int& agent, unsigned& count) {
  VQtransaction t;
  if (read(&t, 1) == 0) return false;
  trans = t.trans;
  addr = t.addr;
  agent = t.agent;
  count = t.count;
  return true;
}

bool velk_reader::read(velk_trans_class& trans, long long& addr, int& agent) {
  unsigned count;
  return read(trans, addr, agent, count);
}

FILE* velk_reader::fp() const { return state->file(); }
bool velk_reader::is_text() const { return state->is_text(); }
bool velk_reader::needs_rewind() const { return state->needs_rewind(); }
