// VQuncomp: a QUBIX file to transactions. The preamble, the path of the bytes from chunk to buffer,
// the record readers, and the checks at the end of the stream.
#include <algorithm>
#include <cstring>
#include <memory>

#include "bytes.h"
#include "checksum.h"
#include "errors.h"
#include "inslist.h"
#include "record_format.h"
#include "stop_bit.h"
#include "vqcomp.h"

namespace vqpack::detail {

namespace {

constexpr int usual_margin = 20;  // a record is started only with more bytes than this ahead
static_assert(max_record_and_repeat <= usual_margin + 1 && max_end_bytes <= usual_margin);

// After the valid bytes. A record that is cut off right after its head takes four of them, each for
// a number or its code, and looks at one more.
constexpr int guard_bytes = 6;
static_assert(4 + 1 <= guard_bytes);
constexpr int min_capacity = 1045;  // one chunk of 1024 bytes and what was left before it
constexpr int max_damaged_record = 1 << 24;

constexpr char too_long[] = "Record too long";

// Arithmetic on decoded addresses wraps: damaged data can make it overflow.
long long from_units(long long unit_addr, int shift) {
  return static_cast<long long>(static_cast<unsigned long long>(unit_addr) << shift);
}

long long wrapping_sum(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) +
                                static_cast<unsigned long long>(b));
}

void move_lines(VQcontext& context, long long lines) {
  const int shift = line_shift(context.trans);
  context.addr = from_units(wrapping_sum(context.addr >> shift, lines), shift);
}

}  // namespace

// What VQuncomp does.
class decompressor {
 public:
  void put(const unsigned char* data, int len);
  std::size_t read(VQtransaction* transactions, std::size_t size);
  long long known_length() const;
  PRUV_header_t* read_pruv_header();
  void check() const;

 private:
  using codec_function = std::size_t (decompressor::*)(VQtransaction*, std::size_t);
  struct record_fields;

  // Why a reader of records goes no further than `head_`.
  enum class stop_reason { none, end_of_records, incomplete, too_long, bad_trans, bad_context };

  // Readers of records: they deliver those that start before startable_end(), up to `size`, and
  // return how many. What stopped them is in `stop_`, and `head_` is at its start.
  template <int AgentBytes, bool Counted>
  std::size_t codec_raw(VQtransaction* transactions, std::size_t size);
  template <bool Counted>
  std::size_t codec_contexts(VQtransaction* transactions, std::size_t size);
  codec_function choose_codec() const;

  stop_reason get_record(const unsigned char*& from, record_fields& fields);
  stop_reason end_marker(const unsigned char* marker, const unsigned char* end);
  void enter_context(const record_fields& fields);
  std::size_t get_repeats(VQtransaction* transactions, std::size_t size);
  void decode_agent_trans(const unsigned char*& from, velk_trans_class& trans, int& agent);

  unsigned char* at(int position) const { return buffer_.get() + position; }
  int startable_end() const { return finished_ ? tail_ : limit_; }
  void start_preamble();
  void gather_preamble();
  void finish_preamble();
  void make_buffer(int bytes);
  void take_input(int bytes);
  bool look_ahead();
  void want_more();
  void set_margin(int bytes);
  [[noreturn]] void check_end();
  [[noreturn]] void fail_here(const char* msg, long long byte,
                              VQfault fault = VQfault::bad_input) const {
    fail(fault, msg, record_number_, byte);
  }

  VQcontext no_context_;               // what `current_` is before the first record
  VQcontext* current_ = &no_context_;  // of the latest record
  unsigned pending_repeat_ = 0;  // repeats of the latest record that are still to be delivered
  long long record_number_ = 1;  // of the next transaction, 1-based
  long long base_ = 0;           // file offset of buffer_[0]; earlier, file bytes taken
  long long known_count_ = -1;   // -1: the count stands in the trailer
  int name_count_ = 0;           // codes must be below it
  std::unique_ptr<unsigned char[]> buffer_;  // the preamble, then record bytes, then guard bytes
  int capacity_ = 0;                         // bytes of `buffer_`, guard bytes not counted
  int tail_ = 0;                             // end of the valid bytes in `buffer_`
  int head_ = 0;                             // next byte to decode
  int limit_ = 0;                            // records start before `tail_` - `margin_`
  int margin_ = usual_margin;  // bytes that must lie ahead to start a record before the end
  stop_reason stop_ = stop_reason::none;
  int marker_bytes_ = 0;                  // of the end marker that was met
  const unsigned char* input_ = nullptr;  // the part of the last chunk not yet taken
  int input_left_ = 0;
  std::unique_ptr<PRUV_header_t> header_;
  bool finished_ = false;  // no more chunks will come
  bool agent_escape_ = false;
  unsigned agent_bits_ = 0;  // of all agents, which have 16; the checksum covers no more
  checksum crc_;
  inslist<VQcontext> contexts_;
  int version_ = 0;
  bool compressed_ = false;
  int header_left_ = 1;  // preamble bytes missing; 1 before the first chunk
  codec_function codec_ = nullptr;
};

void decompressor::put(const unsigned char* data, int len) {
  if (input_left_ > 0)
    fail_here("Previous block hasn't been finished", base_ + head_, VQfault::misuse);
  if (finished_) fail_here("Input has already been finished", base_ + head_, VQfault::misuse);
  input_ = data;
  input_left_ = std::max(len, 0);
  if (len <= 0) {
    finished_ = true;
    if (header_left_ > 0) fail_here(ends_early, base_ + head_);
  } else if (header_left_ > 0) {
    if (!buffer_) start_preamble();
    gather_preamble();
    if (header_left_ == 0) finish_preamble();
  }
}

void decompressor::start_preamble() {
  if (input_left_ < size_field + preamble_offset)
    fail(VQfault::bad_input, "Not enough in first block for header");
  if (std::memcmp(input_, magic, sizeof magic) != 0)
    fail(VQfault::bad_input, "No magic number; is this a QUBIX?");
  version_ = input_[version_offset];
  if (version_ > last_version)
    fail(VQfault::bad_input, "Input has bad version (must be 0-5)", 0, version_offset);
  compressed_ = version_ == 1;
  header_left_ = trailer_bytes;
  base_ = preamble_offset;
  if (has_header(version_)) {
    header_left_ = int(load_le<size_field>(input_ + preamble_offset));
    if (header_left_ < min_header)
      fail(VQfault::bad_input, ends_early, 0, preamble_offset + header_left_);
    base_ += size_field;
  }
  make_buffer(std::max(min_capacity, header_left_ + 1));
  input_ += base_;
  input_left_ -= int(base_);
}

void decompressor::gather_preamble() {
  const int taken = std::min(header_left_, input_left_);
  take_input(taken);
  base_ += taken;
  header_left_ -= taken;
}

void decompressor::finish_preamble() {
  if (!has_header(version_)) {
    const auto stored = unsigned(load_le<sizeof unknown_count>(at(0)));
    header_ = std::make_unique<PRUV_header_t>();
    header_->trans_count = stored == unknown_count ? -1 : static_cast<long long>(stored);
    header_->cycle_count = header_->trans_count;
  } else {
    header_.reset(
        VQuncomp::pruv_header_bytes_to_struct(at(0), tail_, version_, int(base_) - tail_));
    compressed_ = header_->compression != 0;
  }
  header_->version = version_;
  header_->compression = compressed_;
  if (!header_->trans_names) header_->use_default_trans_names();
  known_count_ = header_->trans_count;
  name_count_ = header_->trans_name_count;
  const unsigned kept = header_->max_contexts ? header_->max_contexts : no_limit;
  contexts_.max_blocks = kept / inslist<VQcontext>::block_elements + 2;
  codec_ = choose_codec();
  head_ = tail_ = 0;
}

decompressor::codec_function decompressor::choose_codec() const {
  const bool counted = has_counts(version_);
  if (compressed_)
    return counted ? &decompressor::codec_contexts<true> : &decompressor::codec_contexts<false>;
  if (has_wide_agents(version_))
    return counted ? &decompressor::codec_raw<2, true> : &decompressor::codec_raw<2, false>;
  return counted ? &decompressor::codec_raw<1, true> : &decompressor::codec_raw<1, false>;
}

long long decompressor::known_length() const {
  if (header_left_ > 0) throw VQcomp_block{0};
  return known_count_;
}

PRUV_header_t* decompressor::read_pruv_header() {
  if (header_left_ > 0) throw VQcomp_block{0};
  return header_.release();
}

void decompressor::check() const {
  if (head_ < tail_) fail_here("Some input left in uncompressor", base_);
}

// Gives `buffer_` room for `bytes` and keeps what it holds. The guard bytes after `tail_` end any
// number that is cut off there.
void decompressor::make_buffer(int bytes) {
  const int room = bytes + guard_bytes;
  auto made = std::make_unique<unsigned char[]>(std::size_t(room));
  std::copy_n(at(0), tail_, made.get());
  std::fill_n(made.get() + tail_, guard_bytes, stop_bit);
  buffer_ = std::move(made);
  capacity_ = bytes;
}

// Appends the next `bytes` of the chunk to the valid bytes.
void decompressor::take_input(int bytes) {
  std::copy_n(input_, bytes, at(tail_));
  tail_ += bytes;
  std::fill_n(at(tail_), guard_bytes, stop_bit);
  input_ += bytes;
  input_left_ -= bytes;
}

// Ensures that a record can be started: that either more than `margin_` bytes lie ahead, or all
// that are left of the input. False when another chunk is needed for that.
bool decompressor::look_ahead() {
  if (!codec_ && (finished_ || header_left_ == 0))
    fail_here(ends_early, base_);  // no good preamble
  if (head_ < startable_end()) return true;
  if (finished_) fail_here("Input ends early", base_ + tail_);
  if (header_left_ > 0 || input_left_ == 0) return false;
  if (head_ > 0) {
    base_ += head_;
    tail_ -= head_;
    std::memmove(at(0), at(head_), std::size_t(tail_));
    head_ = 0;
  }
  if (capacity_ <= margin_) make_buffer(2 * margin_);
  take_input(std::min(input_left_, capacity_ - tail_));
  set_margin(margin_);
  return head_ < limit_;
}

// After a record that was not whole: asks for twice the bytes, so that the bytes of an overlong
// record are not read over and over.
void decompressor::want_more() {
  if (finished_) fail_here("Input ends early", base_ + tail_);
  if (tail_ - head_ > max_damaged_record) fail_here(too_long, base_ + head_);
  set_margin(2 * (tail_ - head_));
}

void decompressor::set_margin(int bytes) {
  margin_ = bytes;
  limit_ = tail_ - margin_;
}

std::size_t decompressor::read(VQtransaction* transactions, std::size_t size) {
  while (look_ahead()) {
    const std::size_t delivered = (this->*codec_)(transactions, size);
    if (margin_ != usual_margin) set_margin(usual_margin);  // one record needed more
    if (delivered > 0) {
      crc_.fold(transactions, delivered, has_wide_agents(version_), has_counts(version_));
      record_number_ += static_cast<long long>(delivered);
      return delivered;
    }
    switch (stop_) {
      case stop_reason::end_of_records:
        check_end();
      case stop_reason::bad_trans:
        fail_here("Transaction number out of range", base_ + head_);
      case stop_reason::bad_context:
        fail_here("Context number too high", base_ + head_);
      case stop_reason::too_long:
        fail_here(too_long, base_ + head_);
      default:
        want_more();
    }
  }
  return 0;
}

// Checks what follows the end marker at `head_`. Always throws: VQcomp_done when all is well.
void decompressor::check_end() {
  head_ += marker_bytes_;
  if (tail_ - head_ < checksum_bytes) fail_here(ends_early, base_);
  crc_.fold(at(head_), checksum_bytes);
  head_ += checksum_bytes;
  if (crc_.value() != 0 || agent_bits_ > max_wide_agent) fail_here("Bad checksum", base_ + head_);
  if (known_count_ == -1) {
    if (tail_ - head_ < trailer_bytes) fail_here(ends_early, base_ + head_);
    known_count_ = static_cast<long long>(load_le<trailer_bytes>(at(head_)));
    head_ += trailer_bytes;
  }
  if (known_count_ != 0 && known_count_ != record_number_ - 1)
    fail_here("Bad transaction count", base_ + head_);
  if (head_ < tail_ || !finished_)
    fail_here("Extra data follows good checksum -- file is bad?", base_ + head_);
  throw VQcomp_done{};
}

// An end marker, from `marker` up to `end`, which counts only once what check_end() looks at is
// there, too.
decompressor::stop_reason decompressor::end_marker(const unsigned char* marker,
                                                   const unsigned char* end) {
  constexpr int extra_byte = 1;  // whose presence is refused
  constexpr int looked_at = checksum_bytes + trailer_bytes + extra_byte;
  const auto after = at(tail_) - end;
  if (after < 0 || (!finished_ && after < looked_at)) return stop_reason::incomplete;
  if (end - marker > max_damaged_record) return stop_reason::too_long;
  marker_bytes_ = int(end - marker);
  return stop_reason::end_of_records;
}

template <int AgentBytes, bool Counted>
std::size_t decompressor::codec_raw(VQtransaction* transactions, std::size_t size) {
  constexpr int bytes = 1 + AgentBytes + 8 + (Counted ? 4 : 0);
  std::size_t done = 0;
  stop_ = stop_reason::none;
  for (; done < size && head_ < startable_end(); head_ += bytes) {
    const unsigned char* const from = at(head_);
    if (*from == end_of_raw)
      stop_ = end_marker(from, from + 1);
    else if (tail_ - head_ < bytes)
      stop_ = stop_reason::incomplete;
    else if (*from >= name_count_)
      stop_ = stop_reason::bad_trans;
    if (stop_ != stop_reason::none) break;
    VQtransaction& t = transactions[done++];
    t.trans = *from;
    t.agent = int(load_le<AgentBytes>(from + 1));
    t.addr = static_cast<long long>(load_le<8>(from + 1 + AgentBytes));
    t.count = Counted ? unsigned(load_le<4>(from + bytes - 4)) : 1;
  }
  return done;
}

void decompressor::decode_agent_trans(const unsigned char*& from, velk_trans_class& trans,
                                      int& agent) {
  const unsigned char code = *from++;
  trans = code & ~no_agent;
  agent = 0;
  if (code & no_agent) return;
  if (!agent_escape_) {
    agent = *from++;
    agent_escape_ = agent == escaped_agent && has_wide_agents(version_);
  }
  if (agent_escape_) agent = int(get_stop_bit<unsigned>(from));
}

// One context-coded record as it stands in the file.
struct decompressor::record_fields {
  bool is_new;  // introduces a context:
  long long addr;
  int agent;
  velk_trans_class trans;
  // else:
  unsigned long long position;  // of its context
  bool in_lines;                // the delta counts lines of the context's size class
  long long delta;
  unsigned repeat;
};

// Takes the record at `from` and moves `from` past it, unless there is a reason to stop. Damaged
// data can make it read past `tail_`, though not past the guard bytes; what it took is no record
// then.
[[gnu::always_inline]] inline decompressor::stop_reason decompressor::get_record(
    const unsigned char*& from, record_fields& fields) {
  const unsigned char* const record = from;
  const unsigned char* next = from;
  const bool escape_before = agent_escape_;
  const unsigned char first = *next++;
  const unsigned low = first & 0xF;
  fields.position = first >> position_shift & 3;
  fields.is_new = false;
  if (fields.position > max_short_position) {
    const unsigned char* const number_at = next;
    const unsigned number = get_stop_bit<unsigned>(next);
    if (number == 0 && next - number_at > 1) return end_marker(record, next);
    fields.is_new = number == 0;
    fields.position = static_cast<unsigned long long>(number) + max_short_position;
  }
  if (fields.is_new) {
    fields.addr = static_cast<long long>(low | get_stop_bit<unsigned long long>(next) << 4);
    decode_agent_trans(next, fields.trans, fields.agent);
  } else {
    fields.in_lines = low != long_delta;
    fields.delta = fields.in_lines ? (int(low) ^ 8) - 8 : get_signed_stop_bit(next);
  }
  fields.repeat = first >> repeat_shift;
  if (fields.repeat == long_repeat) fields.repeat = get_stop_bit<unsigned>(next) + max_short_repeat;

  stop_reason found = stop_reason::none;
  if (next > at(tail_))
    found = stop_reason::incomplete;
  else if (next - record > max_damaged_record)
    found = stop_reason::too_long;
  else if (!fields.is_new && fields.position > 0 && fields.position >= contexts_.size())
    found = stop_reason::bad_context;
  else if ((fields.is_new ? fields.trans : current_->trans) >= name_count_)
    found = stop_reason::bad_trans;
  if (found == stop_reason::none)
    from = next;
  else
    agent_escape_ = escape_before;
  return found;
}

[[gnu::always_inline]] inline void decompressor::enter_context(const record_fields& fields) {
  if (fields.is_new) {
    agent_bits_ |= unsigned(fields.agent);
    current_ = contexts_.insert({fields.addr, fields.agent, fields.trans});
    return;
  }
  if (fields.position > 0) current_ = contexts_.lookup(unsigned(fields.position));
  if (fields.in_lines)
    move_lines(*current_, fields.delta);
  else
    current_->addr = wrapping_sum(current_->addr, fields.delta);
}

// Delivers repeats of the latest record, each one line further.
std::size_t decompressor::get_repeats(VQtransaction* transactions, std::size_t size) {
  const std::size_t done = std::min<std::size_t>(size, pending_repeat_);
  pending_repeat_ -= unsigned(done);
  for (std::size_t i = 0; i < done; ++i) {
    move_lines(*current_, 1);
    transactions[i] = {from_units(current_->addr, address_unit_shift<false>(current_->trans)),
                       current_->agent, 1, current_->trans};
  }
  return done;
}

template <bool Counted>
std::size_t decompressor::codec_contexts(VQtransaction* transactions, std::size_t size) {
  const unsigned char* from = at(head_);
  const unsigned char* const end = at(std::max(startable_end(), head_));
  std::size_t done = 0;
  stop_ = stop_reason::none;
  while (done < size && from < end) {
    if (!Counted && pending_repeat_ > 0) {
      done += get_repeats(transactions + done, size - done);
      continue;
    }
    record_fields fields;
    stop_ = get_record(from, fields);
    if (stop_ != stop_reason::none) break;
    enter_context(fields);
    if (!Counted) pending_repeat_ = fields.repeat;
    transactions[done++] = {
        from_units(current_->addr, address_unit_shift<Counted>(current_->trans)), current_->agent,
        Counted ? fields.repeat : 1, current_->trans};
  }
  head_ = int(from - at(0));
  return done;
}

}  // namespace vqpack::detail

VQuncomp::VQuncomp() : decoder(std::make_unique<vqpack::detail::decompressor>()) {}

VQuncomp::~VQuncomp() = default;

void VQuncomp::put(const unsigned char* data, int len) { decoder->put(data, len); }

std::size_t VQuncomp::read(VQtransaction* transactions, std::size_t size) {
  return decoder->read(transactions, size);
}

void VQuncomp::read(velk_trans_class& trans, typeaddr& addr, int& agent, unsigned& count) {
  VQtransaction t;
  if (read(&t, 1) == 0) throw VQcomp_block{0};
  trans = t.trans;
  addr = t.addr;
  agent = t.agent;
  count = t.count;
}

long long VQuncomp::known_length() const { return decoder->known_length(); }

PRUV_header_t* VQuncomp::read_pruv_header() { return decoder->read_pruv_header(); }

void VQuncomp::check() const { decoder->check(); }
