// Error texts, transaction names, and VQcomp: transactions to a QUBIX file.
#include "vqcomp.h"

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cassert>
#include <climits>
#include <cstring>
#include <exception>
#include <iterator>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "bytes.h"
#include "checksum.h"
#include "context_list.h"
#include "errors.h"
#include "known_records.h"
#include "processor.h"
#include "record_format.h"
#include "stdio_bytes.h"
#include "stop_bit.h"

using namespace vqpack::detail;

// Errors: the one line that a user sees.

std::string VQcomp_error::str() const {
  std::string text;
  if (!msg) return text;
  text = msg;
  if (record != 0) text += ", at record " + std::to_string(record);
  if (byte > 0) text += (record != 0 ? ", byte " : ", at byte ") + std::to_string(byte);
  return text;
}

// Transaction names: the parser is written as rules, because it takes more names than the table
// holds.

namespace {

constexpr velk_trans_class last_trans = std::size(velk_trans_names) - 1;
constexpr int families_in_table = 8;  // the first sized ones, which have a code for every size
constexpr std::string_view sized_families[] = {"CDRD",  "LNWR",  "IORD",   "IOWR",
                                               "MEMRD", "MEMWR", "RDINV",  "WRINV",
                                               "VXB",   "VXBNC", "WBMTOE", "WBMTOS"};
constexpr std::string_view size_suffixes[] = {"", "16B", "32B", "64B", "?"};

// Where `word` stands in `words`, or their number.
template <std::size_t N>
int index_of(const std::string_view (&words)[N], std::string_view word) {
  return int(std::find(words, words + N, word) - words);
}

// The code in [first, last] whose name in the table is `name`.
velk_trans_class find_name(std::string_view name, velk_trans_class first, velk_trans_class last) {
  for (velk_trans_class trans = first; trans <= last; ++trans)
    if (name == velk_trans_names[trans]) return trans;
  throw false;
}

}  // namespace

velk_trans_class velk_trans_str2num_type1(const char* text) {
  const std::string_view name = text;
  for (int family = 0; family < int(std::size(sized_families)); ++family) {
    if (!name.starts_with(sized_families[family])) continue;
    const int size = index_of(size_suffixes, name.substr(sized_families[family].size()));
    if (size == int(std::size(size_suffixes))) continue;
    return velk_trans_class(family < families_in_table ? family + 8 * size : family + 56);
  }
  if (name.starts_with("INT:")) return find_name(name, 40, 45);
  if (name.starts_with("SPL")) return find_name(name, 54, 63);
  return find_name(name, 46, 53);
}

const char* velk_trans_num2str_type1(velk_trans_class trans) {
  if (trans > last_trans) throw false;
  return velk_trans_names[trans];
}

// VQcomp: the preamble, the check of each transaction, the record writers, and the end of the file.

namespace {

constexpr int min_block_size = 84;
constexpr int max_block_size = 65536;

// Transactions are checked, coded and folded into the checksum in batches of this many.
constexpr std::size_t batch_size = known_records::max_size;

// Of the buffer, beyond the block size: what a batch may add to a block that is almost full.
constexpr int spare_bytes = int(batch_size) * max_record_and_repeat;
static_assert(max_repeat_bytes + max_end_bytes <= max_record_and_repeat);

constexpr unsigned max_repeats = UINT_MAX;  // more start another record

// The address, if the bit length of the largest one takes it into account, else 0.
unsigned long long counted_addr(const VQtransaction& t) {
  const bool counts = t.addr > 0 && !is_deferred_reply(t.trans);
  return counts ? static_cast<unsigned long long>(t.addr) : 0;
}

long long to_units(long long addr, int shift) {
  return static_cast<long long>(static_cast<unsigned long long>(addr) >> shift);
}

// Writers of parts of records; each returns the position after its part.

// Code and agent of a new context. Agents of 255 and more switch the rest of the stream to
// stop-bit numbers.
unsigned char* encode_agent_trans(unsigned char* to, velk_trans_class trans, int agent,
                                  bool wide_agents, bool& agent_escape) {
  if (agent == 0) return store_le<1>(to, trans | no_agent);
  to = store_le<1>(to, trans);
  if (!agent_escape && (agent < escaped_agent || !wide_agents))
    return store_le<1>(to, unsigned(agent));
  if (!agent_escape) to = store_le<1>(to, escaped_agent);
  agent_escape = true;
  return put_stop_bit(to, unsigned(agent));
}

// Puts a repeat count into the record at `head`, whose other bytes end at `to`.
unsigned char* put_repeat(unsigned char* head, unsigned char* to, unsigned repeat) {
  *head |= static_cast<unsigned char>(std::min(repeat, long_repeat) << repeat_shift);
  return repeat < long_repeat ? to : put_stop_bit(to, repeat - max_short_repeat);
}

}  // namespace

namespace vqpack::detail {

// What VQcomp does. `buffer` and `hdr_len` are members of VQcomp, which outlives this.
class compressor {
 public:
  compressor(FILE* out, int version, PRUV_header_t* header, int size, long long window,
             std::unique_ptr<unsigned char[]>& buffer, int& hdr_len);

  std::size_t record(VQtransaction* transactions, std::size_t size);
  int ready() const { return preamble_only_ && used_ >= block_size_ ? used_ : ready_; }
  int finish(unsigned& contexts, unsigned& avg_distance, unsigned& address_bits);
  VQcomp_summary finish(FILE* file, PRUV_header_t* header);
  void reset_buffer();
  void end(bool aborted);

 private:
  using codec_function = void (compressor::*)(const VQtransaction*, std::size_t);

  void put_preamble(PRUV_header_t* header);
  codec_function choose_codec() const;
  const char* refusal(VQtransaction& t) const;
  std::size_t accept(VQtransaction* transactions, std::size_t size,
                     unsigned long long& addresses) const;
  void write_block();
  void require_turn() const;
  [[noreturn]] void refuse(const char* msg, VQfault fault) const {
    fail(fault, msg, record_count_);
  }

  // Writers of records. The transactions have been checked.
  template <int AgentBytes, bool Counted>
  void codec_raw(const VQtransaction* transactions, std::size_t size);
  template <bool Counted>
  void put_contexts(const VQtransaction* transactions, std::size_t size);
  void codec_3_field_cmp(const VQtransaction* transactions, std::size_t size);
  void codec_4_field_cmp(const VQtransaction* transactions, std::size_t size);

  unsigned char* put_new_context(unsigned char* to, const VQtransaction& t, long long unit_addr);
  void flush_pending_repeat();
  void put_byte(unsigned value) { *at(used_++) = static_cast<unsigned char>(value); }

  void hand_out();
  VQtotals put_count(FILE* file, long long end);
  VQtotals rewrite_header(FILE* file, long long end, PRUV_header_t& header,
                          unsigned address_length);

  unsigned char* at(int position) const { return buffer_.get() + position; }

  std::unique_ptr<unsigned char[]>& buffer_;
  FILE* out_;
  int block_size_;  // fill level at which a block is handed out
  int version_;
  unsigned max_agent_;  // that fits
  bool compressed_;     // context-coded
  int hdr_bytes_;       // as VQcomp::hdr_len
  // Of the header that the constructor stored: the totals, and what the records depend on.
  struct {
    long long trans_count;
    unsigned address_length, compression, max_contexts;
  } stored_{};
  codec_function codec_;
  context_list contexts_;
  known_records records_;  // of the batch that is being coded
  checksum crc_;
  int used_;                     // bytes in the buffer
  int ready_ = 0;                // of them in full blocks
  int mark_;                     // the latest record's first byte; all before it is final
  unsigned pending_repeat_ = 0;  // repeats of the latest record that are not yet written
  bool agent_escape_ = false;    // agents are stop-bit numbers from now on
  bool preamble_only_ = true;    // holds the buffer, or held it when it was last handed out
  bool finished_ = false;
  unsigned addr_bits_ = 4;      // bit length of the largest address so far
  long long record_count_ = 0;  // transactions recorded or refused so far
  long long distance_sum_ = 0;  // of the positions at which contexts were found
  long long handed_out_ = 0;    // bytes of the file before the buffer
  int exceptions_at_construction_ = std::uncaught_exceptions();
};

namespace {

unsigned max_contexts_of(const PRUV_header_t* header) {
  return header && header->max_contexts ? header->max_contexts : no_limit;
}

int checked_size(int size) {
  if (size < min_block_size || size > max_block_size)
    fail(VQfault::misuse, "Size too large or too small");
  return size;
}

int checked_version(int version) {
  if (version < 0 || version > last_version)
    fail(VQfault::misuse, "Illegal version number (must be 0-5)");
  return version;
}

}  // namespace

compressor::compressor(FILE* out, int version, PRUV_header_t* header, int size, long long window,
                       std::unique_ptr<unsigned char[]>& buffer, int& hdr_len)
    : buffer_(buffer),
      out_(out),
      block_size_(checked_size(size)),
      version_(checked_version(version)),
      max_agent_(has_wide_agents(version) ? max_wide_agent : max_agent),
      compressed_(version != 0),
      contexts_(max_contexts_of(header), window >> 3),
      records_(window >> 3) {
  put_preamble(header);
  hdr_len = hdr_bytes_;
  codec_ = choose_codec();
}

void compressor::put_preamble(PRUV_header_t* header) {
  std::unique_ptr<unsigned char[]> encoded;
  hdr_bytes_ = sizeof unknown_count;
  if (has_header(version_)) {
    if (!header) fail(VQfault::misuse, header_required);
    compressed_ = header->compression != 0;
    header->version = version_;
    header->drop_trans_names();
    encoded.reset(VQcomp::pruv_header_struct_to_bytes(*header, hdr_bytes_));
    stored_ = {header->trans_count, header->address_length, header->compression,
               header->max_contexts};
  }
  used_ = mark_ = preamble_offset + hdr_bytes_;
  const int room = std::max(block_size_, used_) + spare_bytes;
  buffer_ = std::make_unique<unsigned char[]>(std::size_t(room));
  std::copy(std::begin(magic), std::end(magic), at(0));
  *at(version_offset) = static_cast<unsigned char>(version_);
  if (encoded)
    std::copy_n(encoded.get(), hdr_bytes_, at(preamble_offset));
  else
    store_le<sizeof unknown_count>(at(preamble_offset), unknown_count);
}

compressor::codec_function compressor::choose_codec() const {
  const bool counted = has_counts(version_);
  if (compressed_) return counted ? &compressor::codec_4_field_cmp : &compressor::codec_3_field_cmp;
  if (has_wide_agents(version_))
    return counted ? &compressor::codec_raw<2, true> : &compressor::codec_raw<2, false>;
  return counted ? &compressor::codec_raw<1, true> : &compressor::codec_raw<1, false>;
}

// Writes what is left where there is a stream; bytes that have nowhere to go are a fault, unless
// another one is known already.
void compressor::end(bool aborted) {
  const bool silent = aborted || std::uncaught_exceptions() > exceptions_at_construction_;
  flush_pending_repeat();
  if (used_ > 0 && out_) {
    const auto size = std::size_t(std::exchange(used_, 0));
    const bool written = std::fwrite(at(0), 1, size, out_) == size && std::fflush(out_) == 0;
    if (!written && !silent) refuse(cannot_write, VQfault::cannot_write);
  }
  if (used_ > 0 && !silent) refuse("Compressor killed with output remaining", VQfault::misuse);
}

// Refuses calls that would overflow the buffer. A preamble may fill a block by itself, for which
// and one record there is room.
void compressor::require_turn() const {
  if (finished_) refuse("Output has already been finished", VQfault::misuse);
  if (ready() && !preamble_only_) refuse("Previous block hasn't been written", VQfault::misuse);
}

// Cuts the address as the file does, and returns the message of a refusal, or null.
const char* compressor::refusal(VQtransaction& t) const {
  if (t.trans > last_trans) return "Transaction out of range";
  if (is_deferred_reply(t.trans))
    t.addr &= 0xFF0000;
  else if (t.addr & 7)
    return "Lowest 3 bits of address not 0";
  if (unsigned(t.agent) > max_agent_) return "Agent ID too big for this version";
  return nullptr;
}

// By type: whether the address is cut, or the transaction refused.
constexpr auto is_unusual = [] {
  std::array<unsigned char, 256> unusual{};
  for (std::size_t trans = 0; trans < unusual.size(); ++trans)
    unusual[trans] = trans > last_trans || is_deferred_reply(velk_trans_class(trans));
  return unusual;
}();

// The number of transactions before the first that is refused. `addresses` receives the bits that
// are set in any of their counted_addr(). What refusal() looks at is gathered over all of them, as
// hardly ever there is anything to find.
std::size_t compressor::accept(VQtransaction* transactions, std::size_t size,
                               unsigned long long& addresses) const {
  unsigned agents = 0, unusual = 0;
  addresses = 0;
  for (std::size_t i = 0; i < size; ++i) {
    addresses |= static_cast<unsigned long long>(transactions[i].addr);
    agents |= unsigned(transactions[i].agent);
    unusual |= is_unusual[transactions[i].trans];
  }
  const bool plain_addresses = (addresses & 7) == 0 && static_cast<long long>(addresses) >= 0;
  if (plain_addresses && agents <= max_agent_ && !unusual) return size;

  std::size_t accepted = 0;
  addresses = 0;
  for (; accepted < size && !refusal(transactions[accepted]); ++accepted)
    addresses |= counted_addr(transactions[accepted]);
  return accepted;
}

// Each batch is checked, coded and folded into the checksum in a short loop of its own.
std::size_t compressor::record(VQtransaction* transactions, std::size_t size) {
  require_turn();
  std::size_t done = 0;
  if (size == 0) return done;
  do {
    unsigned long long addresses;
    const std::size_t accepted =
        accept(transactions + done, std::min(size - done, batch_size), addresses);
    if (accepted == 0) {
      if (done > 0) break;
      ++record_count_;
      refuse(refusal(transactions[0]), VQfault::refused);
    }
    (this->*codec_)(transactions + done, accepted);
    crc_.fold(transactions + done, accepted, has_wide_agents(version_), has_counts(version_));
    addr_bits_ = std::max(addr_bits_, unsigned(std::bit_width(addresses)));
    record_count_ += static_cast<long long>(accepted);
    preamble_only_ = false;
    done += accepted;
    if (out_ && ready()) write_block();
  } while (done < size && !ready());
  return done;
}

void compressor::write_block() {
  if (std::fwrite(at(0), 1, std::size_t(ready_), out_) != std::size_t(ready_))
    refuse(cannot_write, VQfault::cannot_write);
  hand_out();
}

void compressor::reset_buffer() {
  if (!ready() && !finished_) refuse("No block is ready", VQfault::misuse);
  hand_out();
}

void compressor::hand_out() {
  const int size = ready();
  std::memmove(at(0), at(size), std::size_t(used_ - size));
  handed_out_ += size;
  used_ -= size;
  mark_ -= size;
  ready_ = 0;
}

template <int AgentBytes, bool Counted>
void compressor::codec_raw(const VQtransaction* transactions, std::size_t size) {
  unsigned char* to = at(used_);
  int block = ready_;
  for (const VQtransaction& t : std::span(transactions, size)) {
    to = store_le<1>(to, t.trans);
    to = store_le<AgentBytes>(to, unsigned(t.agent));
    to = store_le<8>(to, static_cast<unsigned long long>(t.addr));
    if (Counted) to = store_le<4>(to, t.count);
    if (to - at(block) >= block_size_) block = int(to - at(0));
  }
  ready_ = block;
  mark_ = used_ = int(to - at(0));
}

// The record of a transaction whose context is new; without repeats.
unsigned char* compressor::put_new_context(unsigned char* to, const VQtransaction& t,
                                           long long unit_addr) {
  to = store_le<1>(to, numbered_context | (unit_addr & 0xF));
  to = store_le<1>(to, new_context);
  to = put_stop_bit(to, static_cast<unsigned long long>(unit_addr) >> 4);
  return encode_agent_trans(to, t.trans, t.agent, has_wide_agents(version_), agent_escape_);
}

// With three fields, a transaction that continues the front context by one line costs nothing: it
// is counted, and the count goes into the head byte of the record that it repeats. With four fields
// the repeat count is the transaction's count.
//
// The plain form goes on to the next transaction when all is done for one. Here each step, finding
// the context, its position, making the record, writing it, is a short loop of its own over all
// contexts before a new one: the processor works on several transactions at once then. The list
// does not take a new one before the uses are settled.
template <bool Counted>
[[gnu::always_inline]] inline void compressor::put_contexts(const VQtransaction* transactions,
                                                            std::size_t size) {
  unsigned char* block_end = at(ready_ + block_size_);
  unsigned char* head = at(mark_);  // of the latest record
  unsigned char* to = at(used_);
  unsigned repeat = pending_repeat_;
  long long distance = 0;
  // The latest record is complete.
  const auto start_record = [&] {
    head = repeat ? put_repeat(head, to, std::exchange(repeat, 0)) : to;
  };
  const auto end_record = [&](unsigned count) {
    if (Counted) head = to = put_repeat(head, to, count);
    if (to >= block_end) block_end = head + block_size_;
  };
  const auto context_of = [](const VQtransaction& t) {
    return VQcontext{to_units(t.addr, address_unit_shift<Counted>(t.trans)), t.agent, t.trans};
  };
  contexts_.prepare(size, [=](std::size_t i) { return context_of(transactions[i]); });
  unsigned uses[batch_size];
  std::size_t done = 0;
  do {
    const VQtransaction* const next = transactions + done;
    const std::size_t most = std::min(size - done, contexts_.room());
    std::size_t known = 0;
    for (; known < most; ++known) {
      const VQcontext wanted = context_of(next[known]);
      long long prev;
      if (!contexts_.find(wanted, prev, uses[known])) break;
      records_.set(known, wanted.trans, prev, wanted.addr);
    }
    contexts_.settle(uses, known, records_.positions());
    records_.make(known);
    for (std::size_t i = 0; i < known; ++i) {
      distance += records_.positions()[i];
      if (!Counted && records_.is_next_line(i) && repeat < max_repeats) {
        ++repeat;
        continue;
      }
      start_record();
      to = records_.put(head, i, next[i].trans, context_of(next[i]).addr);
      end_record(next[i].count);
    }
    if (known < most) {
      const VQtransaction& t = next[known];
      contexts_.insert(context_of(t));
      start_record();
      to = put_new_context(head, t, context_of(t).addr);
      end_record(t.count);
      ++known;
    }
    done += known;
  } while (done < size);
  pending_repeat_ = repeat;
  distance_sum_ += distance;
  ready_ = int(block_end - at(0)) - block_size_;
  mark_ = int(head - at(0));
  used_ = int(to - at(0));
}

VQPACK_CLONES void compressor::codec_3_field_cmp(const VQtransaction* transactions,
                                                 std::size_t size) {
  put_contexts<false>(transactions, size);
}

VQPACK_CLONES void compressor::codec_4_field_cmp(const VQtransaction* transactions,
                                                 std::size_t size) {
  put_contexts<true>(transactions, size);
}

// Completes the latest record.
void compressor::flush_pending_repeat() {
  const unsigned repeat = std::exchange(pending_repeat_, 0);
  used_ = mark_ = int(put_repeat(at(mark_), at(used_), repeat) - at(0));
}

int compressor::finish(unsigned& contexts, unsigned& avg_distance, unsigned& address_bits) {
  require_turn();
  finished_ = true;
  flush_pending_repeat();
  crc_.close();
  if (compressed_)
    for (const unsigned char byte : end_of_contexts) put_byte(byte);
  else
    put_byte(end_of_raw);
  for (int shift = 24; shift >= 0; shift -= 8) put_byte(crc_.value() >> shift);
  if (!has_header(version_)) {
    store_le<trailer_bytes>(at(used_), static_cast<unsigned long long>(record_count_));
    used_ += trailer_bytes;
  }
  ready_ = mark_ = used_;
  contexts = unsigned(contexts_.size());
  avg_distance = record_count_ ? unsigned((record_count_ / 2 + distance_sum_) / record_count_) : 0;
  address_bits = std::max(addr_bits_, 8u);
  return used_;
}

namespace {

void put_bytes(FILE* file, const unsigned char* bytes, int size) {
  if (!write_bytes(file, bytes, std::size_t(size))) fail(VQfault::cannot_write, cannot_write);
}

bool appends(FILE* file) {
  const int descriptor = fileno(file);  // none for a stream over memory
  return descriptor >= 0 && (fcntl(descriptor, F_GETFL) & O_APPEND);
}

// Goes back to the preamble of a file whose `written` bytes have gone to the stream; false where it
// cannot, or where the file does not start with the stream. Devices may stay at offset 0.
bool seek_to_preamble(FILE* file, long long written) {
  if (std::fflush(file) != 0) fail(VQfault::cannot_write, cannot_write);
  return !appends(file) && ftello(file) <= written && fseeko(file, preamble_offset, SEEK_SET) == 0;
}

void seek_to(FILE* file, long long offset) {
  if (fseeko(file, offset, SEEK_SET) != 0) fail(VQfault::cannot_write, cannot_write);
}

}  // namespace

VQcomp_summary compressor::finish(FILE* file, PRUV_header_t* header) {
  if (has_header(version_) && !header) fail(VQfault::misuse, header_required);
  VQcomp_summary summary{};
  const int size = finish(summary.contexts, summary.avg_distance, summary.address_length);
  summary.transactions = record_count_;
  const int body = !has_header(version_) ? size - trailer_bytes : size;
  const long long end = handed_out_ + body;
  put_bytes(file, at(0), body);
  if (!has_header(version_)) {
    summary.totals = put_count(file, end);
    hand_out();
  } else {
    hand_out();
    summary.totals = rewrite_header(file, end, *header, summary.address_length);
  }
  return summary;
}

// The last bytes in the buffer are the count: puts them into the preamble, or at the end.
VQtotals compressor::put_count(FILE* file, long long end) {
  const bool in_place = seek_to_preamble(file, end);
  put_bytes(file, at(used_ - trailer_bytes), trailer_bytes);
  if (in_place) seek_to(file, end);
  return in_place ? VQtotals::in_place : VQtotals::count_at_end;
}

VQtotals compressor::rewrite_header(FILE* file, long long end, PRUV_header_t& header,
                                    unsigned address_length) {
  if (!seek_to_preamble(file, end)) {
    if (stored_.trans_count != record_count_) return VQtotals::count_differs;
    return stored_.address_length == address_length ? VQtotals::in_place
                                                    : VQtotals::address_length_differs;
  }
  header.trans_count = record_count_;
  header.address_length = address_length;
  header.version = version_;
  header.compression = stored_.compression;
  header.max_contexts = stored_.max_contexts;
  int size;
  const std::unique_ptr<unsigned char[]> bytes(VQcomp::pruv_header_struct_to_bytes(header, size));
  if (size == hdr_bytes_) put_bytes(file, bytes.get(), size);
  seek_to(file, end);
  return size == hdr_bytes_ ? VQtotals::in_place : VQtotals::header_resized;
}

}  // namespace vqpack::detail

VQcomp::VQcomp(FILE* out, int version, PRUV_header_t* header, int size, long long window)
    : coder(std::make_unique<compressor>(out, version, header, size, window, buffer, hdr_len)) {}

VQcomp::~VQcomp() noexcept(false) { coder->end(aborted); }

std::size_t VQcomp::record(VQtransaction* transactions, std::size_t size) {
  try {
    return coder->record(transactions, size);
  } catch (const std::bad_alloc&) {
    aborted = true;
    throw;
  }
}

void VQcomp::record(velk_trans_class trans, long long addr, int agent, unsigned count) {
  VQtransaction t{addr, agent, count, trans};
  record(&t, 1);
  if (const int bytes = ready()) throw VQcomp_block{unsigned(bytes)};
}

int VQcomp::ready() const { return coder->ready(); }

VQcomp_summary VQcomp::finish(FILE* file, PRUV_header_t* header) {
  try {
    return coder->finish(file, header);
  } catch (...) {
    aborted = true;
    throw;
  }
}

int VQcomp::finish(unsigned& contexts, unsigned& avg_distance, unsigned& address_bits) {
  return coder->finish(contexts, avg_distance, address_bits);
}

void VQcomp::reset_buffer() { coder->reset_buffer(); }
