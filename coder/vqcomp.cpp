#include "vqcomp.h"

#include <fcntl.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bytes.h"
#include "checksum.h"
#include "clones.h"
#include "context_list.h"
#include "inslist.h"
#include "line_scan.h"
#include "read_bytes.h"
#include "stop_bit.h"
#include "text_source.h"

using namespace vqpack::detail;

namespace {

// Facts of the file format that writer and reader share: qubix(5).
constexpr char magic[] = {'Q', 'U'};
constexpr int version_offset = 2;
constexpr int preamble_offset = 3;  // of the transaction count, or of the PRUV header
constexpr int last_version = 5;
constexpr int size_field = 2;            // bytes of a PRUV header before those that it counts
constexpr int shortest_header = 30;      // that its size field may tell
constexpr unsigned unknown_count = ~0u;  // the count stands in the trailer
constexpr unsigned no_limit = ~0u;       // of contexts
constexpr unsigned char end_of_raw = 0xFF;
constexpr unsigned char end_of_contexts[] = {0x30, 0x00, 0x80};
constexpr int checksum_bytes = 4;
constexpr int trailer_bytes = 4;

// Context-coded records: qubix(5).
constexpr int repeat_shift = 6;  // the head byte's upper two bits
constexpr unsigned last_short_repeat = 2;
constexpr unsigned long_repeat = 3;  // a number follows the record
constexpr int position_shift = 4;    // the next two
constexpr unsigned char numbered_context = 0x30;
constexpr int last_short_position = 2;
constexpr unsigned char long_delta = 8;
constexpr int largest_short_delta = 7;
constexpr unsigned char new_context = 0x80;  // context number 0
constexpr unsigned char no_agent = 0x80;     // in the code byte: agent 0, no byte follows
constexpr unsigned char escaped_agent = 0xFF;
constexpr unsigned highest_wide_agent = 0xFFFF;

// The longest record is a new context: head, context number, address, code, escape and agent. The
// repeat count of the record before it may be written in the same call.
constexpr int upper_address_bits = 64 - 3 - 4;
constexpr int longest_repeat = stop_bit_bytes(32);
constexpr int longest_record =
    1 + 1 + stop_bit_bytes(upper_address_bits) + 1 + 1 + stop_bit_bytes(16);
constexpr int longest_with_repeat = longest_record + longest_repeat;
constexpr int longest_end = int(sizeof end_of_contexts) + checksum_bytes + trailer_bytes;
constexpr int spare_bytes = 28;   // of the compressor's buffer, beyond the block size
constexpr int usual_margin = 20;  // a record is started only with more bytes than this ahead
static_assert(longest_with_repeat <= spare_bytes && longest_repeat + longest_end <= spare_bytes);
static_assert(longest_with_repeat <= usual_margin + 1 && longest_end <= usual_margin);

// The compressor takes transactions in steps of this many, and starts a new record when the number
// of repeats would no longer fit.
constexpr std::size_t step = 64;
constexpr unsigned most_repeats = UINT_MAX;

// Behind the valid bytes. A record that is cut off right behind its head takes four of them, each
// for a number or its code, and looks at one more.
constexpr int guard_bytes = 6;
static_assert(4 + 1 <= guard_bytes);
constexpr int smallest_capacity = 1045;  // one chunk of 1024 bytes and what was left ahead of it
constexpr int longest_damaged_record = 1 << 24;

constexpr char ends_early[] = "QUBIX file ends prematurely";
constexpr char too_long[] = "Record too long";
constexpr char header_required[] = "Versions 2 and higher require PRUV header";
constexpr char cannot_read[] = "Can't read input";
constexpr char cannot_write[] = "Can't write output";

// Text input: velk(5).
constexpr int longest_line = 99;           // characters, newline included; the rest is another line
constexpr int longest_counted_piece = 98;  // the same when lines are only counted
static_assert(text_source::readable >= line_scan::readable_behind &&
              text_source::readable_before >= line_scan::readable_before);

constexpr velk_trans_class last_trans = std::size(VQcomp::FSB_transactions) - 1;

[[noreturn]] void fail(VQfault fault, const char* msg) {
  throw VQcomp_error{msg, 0, 0, false, fault};
}

[[noreturn]] void fail_outside_records(const char* msg, long long byte = 0) {
  throw VQcomp_error{msg, 0, byte, false, VQfault::bad_input};
}

bool is_deferred_reply(velk_trans_class trans) { return trans == 47 || trans == 48; }

// The address, if the bit length of the largest one takes it into account, else 0.
unsigned long long counted_addr(const VQtransaction& t) {
  const bool counts = t.addr > 0 && !is_deferred_reply(t.trans);
  return counts ? static_cast<unsigned long long>(t.addr) : 0;
}

// The shift from 8-byte units to the lines that transactions of a type span. A header with more
// names than the table makes the codes beyond it legal; they span 8 bytes.
constexpr auto size_classes = [] {
  std::array<unsigned char, 256 / 8> classes{};
  std::copy(std::begin(VQcomp::trans2line_size), std::end(VQcomp::trans2line_size),
            classes.begin());
  return classes;
}();

int size_class(velk_trans_class trans) { return size_classes[trans >> 3]; }

// Context codecs count addresses in units of 1 << shift bytes: 8 bytes, except that the deferred
// replies, whose address has only bits 16 to 23, take 64 KiB in the four-field codecs.
constexpr int usual_unit = 3;
int unit_with_count(velk_trans_class trans) { return is_deferred_reply(trans) ? 16 : usual_unit; }

long long to_units(long long addr, int unit) {
  return static_cast<long long>(static_cast<unsigned long long>(addr) >> unit);
}

// Arithmetic on decoded addresses wraps: damaged data can make it run over.
long long from_units(long long unit_addr, int unit) {
  return static_cast<long long>(static_cast<unsigned long long>(unit_addr) << unit);
}

long long wrapping_sum(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) +
                                static_cast<unsigned long long>(b));
}

void move_lines(VQuncomp::context& context, long long lines) {
  const int shift = size_class(context.trans);
  context.addr = from_units(wrapping_sum(context.addr >> shift, lines), shift);
}

}  // namespace

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

constexpr int sized_in_table = 8;  // the first eight sized families have a code for every size
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
    if (name == VQcomp::FSB_transactions[trans]) return trans;
  throw false;
}

}  // namespace

velk_trans_class velk_trans_str2num_type1(const char* text) {
  const std::string_view name = text;
  for (int family = 0; family < int(std::size(sized_families)); ++family) {
    if (!name.starts_with(sized_families[family])) continue;
    const int size = index_of(size_suffixes, name.substr(sized_families[family].size()));
    if (size == int(std::size(size_suffixes))) continue;
    return velk_trans_class(family < sized_in_table ? family + 8 * size : family + 56);
  }
  if (name.starts_with("INT:")) return find_name(name, 40, 45);
  if (name.starts_with("SPL")) return find_name(name, 54, 63);
  return find_name(name, 46, 53);
}

const char* velk_trans_num2str_type1(velk_trans_class trans) {
  if (trans > last_trans) throw false;
  return VQcomp::FSB_transactions[trans];
}

// PRUV header: the record, its encoder and its decoder. The CRC is not over the stored bytes but
// over an image of the field values, in which most fields are wider than in the file.

PRUV_header_t::~PRUV_header_t() {
  delete[] extra_shorts_1;
  drop_trans_names();
  for (int i = 0; i < extra_string_count; ++i) delete[] extra_strings[i];
  delete[] extra_strings;
  delete[] extra_shorts_2;
  delete[] sensitivity;
  delete[] comment;
}

void PRUV_header_t::drop_trans_names() {
  if (!trans_names_static) {
    for (int i = 0; i < trans_name_count; ++i) delete[] trans_names[i];
    delete[] trans_names;
  }
  trans_name_count = 0;
  trans_names = nullptr;
  trans_names_static = true;
}

void PRUV_header_t::use_default_trans_names() {
  drop_trans_names();
  trans_name_count = int(std::size(VQcomp::FSB_transactions));
  trans_names = VQcomp::FSB_transactions;
}

namespace {

// Bytes of the encoded parts, as the size field counts them: qubix(5).
constexpr int fixed_bytes_1 = 28;  // header type 1, behind the size field
constexpr int fixed_bytes_2 = 44;
constexpr int list_count_bytes = 5;
constexpr int sensitivity_bytes = 23;
constexpr int max_contexts_bytes = 5;
constexpr int crc_bytes = 4;
constexpr unsigned char expansion_end = 0;
constexpr unsigned char expansion_max_contexts = 1;
constexpr int longest_list = 255;
constexpr int longest_header = 65535;

const char* text_of(const char* text) { return text ? text : ""; }

std::size_t bytes_of(const char* const* strings, int count) {
  std::size_t bytes = 0;
  for (int i = 0; i < count; ++i) bytes += std::strlen(text_of(strings[i])) + 1;
  return bytes;
}

void fold_string(checksum& crc, const char* text) {
  text = text_of(text);
  crc.fold(reinterpret_cast<const unsigned char*>(text), std::strlen(text) + 1);
}

void fold_strings(checksum& crc, const char* const* strings, int count) {
  for (int i = 0; i < count; ++i) fold_string(crc, strings[i]);
}

void fold_word(checksum& crc, unsigned value) { crc.fold_le<4>(value); }

void fold_shorts(checksum& crc, const short* values, int count) {
  for (int i = 0; i < count; ++i) fold_word(crc, unsigned(int(values[i])));
}

void fold_sensitivity(checksum& crc, const sensitivity_point_t& point) {
  crc.fold_le<1>(point.config_type);
  for (const unsigned value : {point.mlc_size, point.llc_size, point.instructions, point.cycles,
                               point.llc_refs, point.llc_misses})
    fold_word(crc, value);
}

// The CRC of the header's image for header type 1 or 2. Of 64-bit totals it covers the low half.
unsigned image_crc(const PRUV_header_t& h, bool type_2) {
  checksum crc;
  for (const unsigned value :
       {h.threads, h.cache_size_kib, h.line_size, h.extra_byte_1, h.extra_byte_2, h.address_length})
    fold_word(crc, value);
  for (const long long total : {h.trans_count, h.inst_count, h.cycle_count}) {
    fold_word(crc, unsigned(total));
    if (type_2) fold_word(crc, 0);
  }
  if (type_2)
    for (const unsigned value : {h.trans_set, h.capture_point, h.gen_method, h.address_properties})
      fold_word(crc, value);
  fold_word(crc, h.compression);
  fold_shorts(crc, h.extra_shorts_1, h.extra_shorts_1_count);
  fold_strings(crc, h.trans_names, h.trans_name_count);
  fold_strings(crc, h.extra_strings, h.extra_string_count);
  fold_shorts(crc, h.extra_shorts_2, h.extra_shorts_2_count);
  for (int i = 0; i < h.sensitivity_count; ++i) fold_sensitivity(crc, h.sensitivity[i]);
  if (type_2) {
    fold_string(crc, h.comment);
    if (h.max_contexts) fold_word(crc, h.max_contexts);
  }
  return crc.value();
}

// What the size field must hold, for header type 1 or 2.
std::size_t encoded_size(const PRUV_header_t& h, bool type_2) {
  const int shorts = h.extra_shorts_1_count + h.extra_shorts_2_count;
  std::size_t size = fixed_bytes_1 + list_count_bytes + 2 * std::size_t(shorts) +
                     bytes_of(h.trans_names, h.trans_name_count) +
                     bytes_of(h.extra_strings, h.extra_string_count) +
                     sensitivity_bytes * std::size_t(h.sensitivity_count);
  if (type_2)
    size += fixed_bytes_2 - fixed_bytes_1 + std::strlen(text_of(h.comment)) + 1 +
            (h.max_contexts ? max_contexts_bytes : 0) + 1;
  return size;
}

// Values that this system defines but cannot encode.
void refuse_unsupported(const PRUV_header_t& h, bool type_2) {
  if (h.trans_set) fail(VQfault::refused, "Non-zero transaction set number unsupported now");
  if (h.capture_point || h.gen_method || h.address_properties)
    fail(VQfault::refused,
         "Non-zero trace characteristics (capture point, gen. method, address properties "
         "unsupported now");
  // One negative total makes the whole sum of bits negative and passes.
  if (!type_2 && (h.trans_count | h.inst_count | h.cycle_count) > 0xFFFFFFFFll)
    fail(VQfault::refused, "Given trans/inst/cycle count too large for this header type");
}

// A list shorter than nothing would be written all over.
void refuse_negative(const PRUV_header_t& h) {
  for (const int length : {h.extra_shorts_1_count, h.trans_name_count, h.extra_string_count,
                           h.extra_shorts_2_count, h.sensitivity_count})
    if (length < 0) fail(VQfault::misuse, "PRUV header: negative length of a list");
}

// Values wider than their field would be stored cut off, under a CRC of the whole value.
void refuse_wide(const PRUV_header_t& h, std::size_t size) {
  const struct {
    bool wide;
    const char* msg;
  } checks[] = {
      {h.threads > 0xFFFF, "PRUV header: threads above 65535"},
      {h.line_size > 0xFFFF, "PRUV header: line size above 65535"},
      {h.extra_byte_1 > 0xFF, "PRUV header: extra byte 1 above 255"},
      {h.extra_byte_2 > 0xFF, "PRUV header: extra byte 2 above 255"},
      {h.address_length > 0xFF, "PRUV header: address length above 255"},
      {h.compression > 0xFF, "PRUV header: compression above 255"},
      {h.extra_shorts_1_count > longest_list, "PRUV header: more than 255 extra shorts 1"},
      {h.trans_name_count > longest_list, "PRUV header: more than 255 transaction names"},
      {h.extra_string_count > longest_list, "PRUV header: more than 255 extra strings"},
      {h.extra_shorts_2_count > longest_list, "PRUV header: more than 255 extra shorts 2"},
      {h.sensitivity_count > longest_list, "PRUV header: more than 255 sensitivity points"},
      {size > longest_header, "PRUV header: comment and lists above 65535 bytes"},
  };
  for (const auto& check : checks)
    if (check.wide) fail(VQfault::refused, check.msg);
  for (int i = 0; i < h.sensitivity_count; ++i) {
    if (h.sensitivity[i].config_type > 0xFF)
      fail(VQfault::refused, "PRUV header: sensitivity configuration type above 255");
    if (h.sensitivity[i].mlc_size > 0xFFFF)
      fail(VQfault::refused, "PRUV header: sensitivity MLC size above 65535");
  }
}

unsigned char* put_shorts(unsigned char* to, const short* values, int count) {
  to = store_le<1>(to, unsigned(count));
  for (int i = 0; i < count; ++i) to = store_le<2>(to, static_cast<unsigned short>(values[i]));
  return to;
}

unsigned char* put_string(unsigned char* to, const char* text) {
  text = text_of(text);
  const std::size_t bytes = std::strlen(text) + 1;
  std::memcpy(to, text, bytes);
  return to + bytes;
}

unsigned char* put_strings(unsigned char* to, const char* const* strings, int count) {
  to = store_le<1>(to, unsigned(count));
  for (int i = 0; i < count; ++i) to = put_string(to, strings[i]);
  return to;
}

unsigned char* put_sensitivity(unsigned char* to, const sensitivity_point_t* points, int count) {
  to = store_le<1>(to, unsigned(count));
  for (int i = 0; i < count; ++i) {
    to = store_le<1>(to, points[i].config_type);
    to = store_le<2>(to, points[i].mlc_size);
    to = store_le<4>(to, points[i].llc_size);
    to = store_le<4>(to, points[i].instructions);
    to = store_le<4>(to, points[i].cycles);
    to = store_le<4>(to, points[i].llc_refs);
    to = store_le<4>(to, points[i].llc_misses);
  }
  return to;
}

unsigned char* put_sizes(unsigned char* to, const PRUV_header_t& h) {
  to = store_le<2>(to, h.threads);
  to = store_le<4>(to, h.cache_size_kib);
  to = store_le<2>(to, h.line_size);
  to = store_le<1>(to, h.extra_byte_1);
  to = store_le<1>(to, h.extra_byte_2);
  return store_le<1>(to, h.address_length);
}

template <int Bytes>
unsigned char* put_totals(unsigned char* to, const PRUV_header_t& h) {
  for (const long long total : {h.trans_count, h.inst_count, h.cycle_count})
    to = store_le<Bytes>(to, static_cast<unsigned long long>(total));
  return to;
}

unsigned char* put_comment_and_expansion(unsigned char* to, const PRUV_header_t& h) {
  to = put_string(to, h.comment);
  if (h.max_contexts) {
    *to++ = expansion_max_contexts;
    to = store_le<4>(to, h.max_contexts);
  }
  *to++ = expansion_end;
  return to;
}

unsigned char* put_header(unsigned char* to, const PRUV_header_t& h, bool type_2, int size,
                          unsigned crc) {
  to = store_le<size_field>(to, unsigned(size));
  to = put_sizes(to, h);
  to = type_2 ? put_totals<8>(to, h) : put_totals<4>(to, h);
  if (type_2)
    for (const unsigned value : {h.trans_set, h.capture_point, h.gen_method, h.address_properties})
      to = store_le<1>(to, value);
  to = store_le<1>(to, h.compression);
  to = store_le<crc_bytes>(to, crc);
  to = put_shorts(to, h.extra_shorts_1, h.extra_shorts_1_count);
  to = put_strings(to, h.trans_names, h.trans_name_count);
  to = put_strings(to, h.extra_strings, h.extra_string_count);
  to = put_shorts(to, h.extra_shorts_2, h.extra_shorts_2_count);
  to = put_sensitivity(to, h.sensitivity, h.sensitivity_count);
  return type_2 ? put_comment_and_expansion(to, h) : to;
}

}  // namespace

unsigned VQcomp::pruv_header_size_and_crc(const PRUV_header_t& header, int& size) {
  const int type = header.version >= 0 && header.version <= last_version
                       ? hdr_type_for_version[header.version]
                       : 0;
  if (type != 1 && type != 2) fail(VQfault::misuse, "Internal error: header type corrupted");
  refuse_negative(header);
  size = int(std::min<std::size_t>(encoded_size(header, type == 2), INT_MAX));
  return image_crc(header, type == 2);
}

unsigned char* VQcomp::pruv_header_struct_to_bytes(PRUV_header_t& header, int& size) {
  if (header.compression == 0) header.max_contexts = 0;
  int counted;
  const unsigned crc = pruv_header_size_and_crc(header, counted);
  const bool type_2 = hdr_type_for_version[header.version] == 2;
  refuse_unsupported(header, type_2);
  refuse_wide(header, std::size_t(counted));
  size = counted + size_field;
  auto bytes = std::make_unique<unsigned char[]>(std::size_t(size));
  const unsigned char* const end = put_header(bytes.get(), header, type_2, counted, crc);
  if (end != bytes.get() + size)
    fail(VQfault::misuse, "Internal error: PRUV header size miscounted");
  return bytes.release();
}

namespace {

// Takes the fields of an encoded header one after another. Everything that runs beyond the
// header's length is refused in `need`.
struct header_cursor {
  const unsigned char* at;
  int left;  // bytes of the header behind `at`
  long long end_offset;

  void need(int bytes) const {
    if (left < bytes) fail_outside_records(ends_early, end_offset);
  }
  template <int Bytes>
  unsigned long long get() {
    need(Bytes);
    const unsigned char* const from = at;
    at += Bytes;
    left -= Bytes;
    return load_le<Bytes>(from);
  }
  template <int Bytes>
  unsigned word() {
    static_assert(Bytes <= 4);
    return unsigned(get<Bytes>());
  }
};

// Room for `size` entries that the caller of a static decoder will own.
template <class T>
T* make_owned(int size) {
  return new T[std::size_t(size)];
}

void get_sizes(header_cursor& from, PRUV_header_t& h) {
  h.threads = from.word<2>();
  h.cache_size_kib = from.word<4>();
  h.line_size = from.word<2>();
  h.extra_byte_1 = from.word<1>();
  h.extra_byte_2 = from.word<1>();
  h.address_length = from.word<1>();
}

template <int Bytes>
void get_totals(header_cursor& from, PRUV_header_t& h) {
  for (long long* const total : {&h.trans_count, &h.inst_count, &h.cycle_count})
    *total = static_cast<long long>(from.get<Bytes>());
}

void get_characteristics(header_cursor& from, PRUV_header_t& h) {
  for (unsigned* const value :
       {&h.trans_set, &h.capture_point, &h.gen_method, &h.address_properties})
    *value = from.word<1>();
}

void get_sensitivity(header_cursor& from, PRUV_header_t& h) {
  from.need(1);
  const int count = int(from.word<1>());
  from.need(sensitivity_bytes * count);
  if (count == 0) return;
  h.sensitivity = make_owned<sensitivity_point_t>(count);
  h.sensitivity_count = count;
  for (int i = 0; i < count; ++i) {
    sensitivity_point_t& point = h.sensitivity[i];
    point.config_type = from.word<1>();
    point.mlc_size = from.word<2>();
    for (unsigned* const value :
         {&point.llc_size, &point.instructions, &point.cycles, &point.llc_refs, &point.llc_misses})
      *value = from.word<4>();
  }
}

// The bytes of the string at `at`, its terminating 0 included; 0 when none stands within `left`.
int string_bytes(const unsigned char* at, int left) {
  const void* const end = left > 0 ? std::memchr(at, 0, std::size_t(left)) : nullptr;
  return end ? int(static_cast<const unsigned char*>(end) - at) + 1 : 0;
}

void get_comment(header_cursor& from, PRUV_header_t& h) {
  const int bytes = string_bytes(from.at, from.left);
  if (bytes == 0) fail_outside_records(ends_early, from.end_offset);
  if (bytes > 1) {
    h.comment = make_owned<char>(bytes);
    std::memcpy(h.comment, from.at, std::size_t(bytes));
  }
  from.at += bytes;
  from.left -= bytes;
}

void get_expansion(header_cursor& from, PRUV_header_t& h) {
  for (;;) {
    const long long tag_offset = from.end_offset - from.left;
    switch (from.word<1>()) {
      case expansion_end:
        return;
      case expansion_max_contexts:
        h.max_contexts = from.word<4>();
        break;
      default:
        fail_outside_records("Unknown expansion field in PRUV header", tag_offset);
    }
  }
}

}  // namespace

PRUV_header_t* VQuncomp::pruv_header_bytes_to_struct(const unsigned char* bytes, int length,
                                                     int version, int offset) {
  const bool type_2 = VQcomp::hdr_type_for_version[version] == 2;
  const int fixed_bytes = type_2 ? fixed_bytes_2 : fixed_bytes_1;
  header_cursor from{bytes, length, offset + length};
  from.need(fixed_bytes);
  auto header = std::make_unique<PRUV_header_t>();
  get_sizes(from, *header);
  if (type_2) {
    get_totals<8>(from, *header);
    get_characteristics(from, *header);
  } else {
    get_totals<4>(from, *header);
  }
  header->compression = from.word<1>();
  const unsigned stored_crc = from.word<crc_bytes>();
  header->version = version;

  header->extra_shorts_1 = unpack_shorts(from.at, from.left, header->extra_shorts_1_count);
  header->trans_names = unpack_strings(from.at, from.left, header->trans_name_count);
  header->trans_names_static = false;
  header->extra_strings = unpack_strings(from.at, from.left, header->extra_string_count);
  header->extra_shorts_2 = unpack_shorts(from.at, from.left, header->extra_shorts_2_count);
  get_sensitivity(from, *header);
  if (type_2) {
    get_comment(from, *header);
    get_expansion(from, *header);
  }
  if (from.left > 0) fail_outside_records("Unknown junk at end of PRUV header", from.end_offset);

  // The size fails where the fields could have been encoded in fewer bytes.
  int size;
  if (VQcomp::pruv_header_size_and_crc(*header, size) != stored_crc || size != length)
    fail_outside_records("PRUV header has bad CRC", offset + fixed_bytes - crc_bytes);
  return header.release();
}

short* VQuncomp::unpack_shorts(const unsigned char*& p, int& left, int& count) {
  if (left < 1) fail_outside_records(ends_early);
  const int listed = *p;
  if (left < 2 * listed + 1) fail_outside_records(ends_early);
  ++p;
  left -= 2 * listed + 1;
  short* const values = listed ? make_owned<short>(listed) : nullptr;
  for (int i = 0; i < listed; ++i, p += 2) values[i] = short(load_le<2>(p));
  count = listed;
  return values;
}

char** VQuncomp::unpack_strings(const unsigned char*& p, int& left, int& count) {
  if (left < 1) fail_outside_records(ends_early);
  std::vector<std::unique_ptr<char[]>> strings(*p++);
  --left;
  for (auto& string : strings) {
    const int bytes = string_bytes(p, left);
    if (bytes == 0) fail_outside_records(ends_early);
    string.reset(make_owned<char>(bytes));
    std::memcpy(string.get(), p, std::size_t(bytes));
    p += bytes;
    left -= bytes;
  }
  const int listed = int(strings.size());
  char** const owned = listed ? make_owned<char*>(listed) : nullptr;
  std::transform(strings.begin(), strings.end(), owned,
                 [](auto& string) { return string.release(); });
  count = listed;  // only now: the owner of the list frees as many
  return owned;
}

// VQcomp: the preamble, the one door through which transactions enter, the record writers, and the
// end of the file.

VQcomp::VQcomp(FILE* out_stream, int file_type, PRUV_header_t* header, int size,
               long long window_bytes)
    : window(window_bytes >> 3),
      max_contexts(header && header->max_contexts ? header->max_contexts : no_limit),
      block_size(size),
      out(out_stream),
      crc(std::make_unique<checksum>()),
      version(file_type),
      exceptions_at_birth(std::uncaught_exceptions()) {
  if (size < 84 || size > 65536) fail(VQfault::misuse, "Size too large or too small");
  if (version < 0 || version > last_version)
    fail(VQfault::misuse, "Illegal version number (must be 0-5)");
  four_field = version == 3 || version == 5;
  compressed = version != 0;
  wide_agents = version > 3;
  highest_agent = wide_agents ? highest_wide_agent : 0xFF;
  hdr_type = hdr_type_for_version[version];
  put_preamble(header);
  contexts = std::make_unique<context_list>(max_contexts, window);
  codec = choose_codec();
}

void VQcomp::put_preamble(PRUV_header_t* header) {
  std::unique_ptr<unsigned char[]> encoded;
  hdr_len = sizeof unknown_count;
  if (hdr_type != 0) {
    if (!header) fail(VQfault::misuse, header_required);
    compressed = header->compression != 0;
    header->version = version;
    header->drop_trans_names();
    encoded.reset(pruv_header_struct_to_bytes(*header, hdr_len));
  }
  used = mark = preamble_offset + hdr_len;
  const int room = std::max(block_size, used) + spare_bytes;
  buffer = std::make_unique<unsigned char[]>(std::size_t(room));
  std::copy(std::begin(magic), std::end(magic), buffer.get());
  *at(version_offset) = static_cast<unsigned char>(version);
  if (encoded)
    std::copy_n(encoded.get(), hdr_len, at(preamble_offset));
  else
    store_le<sizeof unknown_count>(at(preamble_offset), unknown_count);
}

VQcomp::codec_function VQcomp::choose_codec() const {
  if (compressed) return four_field ? &VQcomp::codec_4_field_cmp : &VQcomp::codec_3_field_cmp;
  if (wide_agents)
    return four_field ? &VQcomp::codec_4_field_raw_a2 : &VQcomp::codec_3_field_raw_a2;
  return four_field ? &VQcomp::codec_4_field_raw : &VQcomp::codec_3_field_raw;
}

VQcomp::~VQcomp() noexcept(false) {
  const bool silent = aborted || std::uncaught_exceptions() > exceptions_at_birth;
  flushPendingRepeat();
  if (used > 0 && out) {
    const bool written = std::fwrite(buffer.get(), 1, std::size_t(used), out) == std::size_t(used);
    if ((!written || std::fflush(out) != 0) && !silent) refuse(cannot_write, VQfault::cannot_write);
    used = 0;
  }
  if (used > 0 && !silent) refuse("Compressor killed with output remaining", VQfault::misuse);
}

void VQcomp::refuse(const char* msg, VQfault fault) const {
  throw VQcomp_error{msg, record_count, 0, false, fault};
}

// Refuses calls that would overflow the buffer. A preamble may fill a block by itself, for which
// and one record there is room.
void VQcomp::require_turn() const {
  if (finished) refuse("Output has already been finished", VQfault::misuse);
  if (ready() && record_count > 0) refuse("Previous block hasn't been written", VQfault::misuse);
}

// Cuts the address as the file does, and returns the message of a refusal, or null.
const char* VQcomp::refusal(VQtransaction& t) const {
  if (t.trans > last_trans) return "Transaction out of range";
  if (is_deferred_reply(t.trans))
    t.addr &= 0xFF0000;
  else if (t.addr & 7)
    return "Lowest 3 bits of address not 0";
  if (unsigned(t.agent) > highest_agent) return "Agent ID too big for this version";
  return nullptr;
}

// The number of transactions before the first that is refused. `addresses` receives the bits that
// are set in any of their counted_addr().
std::size_t VQcomp::accept(VQtransaction* transactions, std::size_t size,
                           unsigned long long& addresses) const {
  std::size_t accepted = 0;
  addresses = 0;
  for (; accepted < size && !refusal(transactions[accepted]); ++accepted)
    addresses |= counted_addr(transactions[accepted]);
  return accepted;
}

// Works in steps over a few transactions at a time: check, code, fold into the checksum. Each step
// is a short loop, and what is checked in vain when a block becomes full does not matter.
std::size_t VQcomp::record(VQtransaction* transactions, std::size_t size) {
  require_turn();
  std::size_t done = 0;
  if (size == 0) return done;
  do {
    unsigned long long addresses;
    const std::size_t accepted =
        accept(transactions + done, std::min(size - done, step), addresses);
    if (accepted == 0) {
      if (done > 0) break;
      ++record_count;
      refuse(refusal(transactions[0]), VQfault::refused);
    }
    const std::size_t coded = (this->*codec)(transactions + done, accepted);
    crc->fold(transactions + done, coded, wide_agents, four_field);
    if (coded < accepted) accept(transactions + done, coded, addresses);  // without the others'
    addr_bits = std::max(addr_bits, unsigned(std::bit_width(addresses)));
    record_count += static_cast<long long>(coded);
    done += coded;
    if (out && ready()) write_block();
  } while (done < size && !ready());
  return done;
}

void VQcomp::record(velk_trans_class trans, long long addr, int agent, unsigned count) {
  VQtransaction t{addr, agent, count, trans};
  record(&t, 1);
  if (ready()) throw VQcomp_block{unsigned(ready())};
}

void VQcomp::write_block() {
  if (std::fwrite(buffer.get(), 1, std::size_t(mark), out) != std::size_t(mark))
    refuse(cannot_write, VQfault::cannot_write);
  reset_buffer();
}

void VQcomp::reset_buffer() {
  std::memmove(buffer.get(), at(mark), std::size_t(used - mark));
  handed_out += mark;
  used -= mark;
  mark = 0;
}

template <int AgentBytes, bool Counted>
std::size_t VQcomp::put_raw(const VQtransaction* transactions, std::size_t size) {
  std::size_t done = 0;
  do {
    const VQtransaction& t = transactions[done++];
    unsigned char* to = at(used);
    to = store_le<1>(to, t.trans);
    to = store_le<AgentBytes>(to, unsigned(t.agent));
    to = store_le<8>(to, static_cast<unsigned long long>(t.addr));
    if (Counted) to = store_le<4>(to, t.count);
    used = int(to - buffer.get());
  } while (done < size && used < block_size);
  mark = used;
  return done;
}

std::size_t VQcomp::codec_3_field_raw(const VQtransaction* transactions, std::size_t size) {
  return put_raw<1, false>(transactions, size);
}

std::size_t VQcomp::codec_3_field_raw_a2(const VQtransaction* transactions, std::size_t size) {
  return put_raw<2, false>(transactions, size);
}

std::size_t VQcomp::codec_4_field_raw(const VQtransaction* transactions, std::size_t size) {
  return put_raw<1, true>(transactions, size);
}

std::size_t VQcomp::codec_4_field_raw_a2(const VQtransaction* transactions, std::size_t size) {
  return put_raw<2, true>(transactions, size);
}

namespace {

// Context-coded records at `to`, piece by piece; each function returns the position behind its
// piece.

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

// From a context's latest address to the next one: in address units, and in lines where it is few
// lines to the start of one.
struct delta {
  delta(velk_trans_class trans, long long unit_addr, long long prev) : units(unit_addr - prev) {
    const int shift = size_class(trans);
    lines = (unit_addr >> shift) - (prev >> shift);
    // A few lines are a number from 0 to 14 here; an address within a line makes it 16 or more.
    const auto few = static_cast<unsigned long long>(lines + largest_short_delta);
    const auto within_line = static_cast<unsigned long long>(unit_addr) & ((1u << shift) - 1);
    is_in_lines = (few | within_line << 4) <= 2ull * largest_short_delta;
  }

  long long units;
  long long lines;
  bool is_in_lines;
};

// `value` if it is wanted, else 0.
std::ptrdiff_t only_if(bool wanted, std::ptrdiff_t value) {
  return value & -std::ptrdiff_t(wanted);
}

// Head byte, context number and delta of a record whose context was found at `position`. Which of
// its parts the next record has is hard to foretell: so all are written, and what is not wanted is
// written over; where two bytes hold a number, no branch is taken. It touches 1 + 5 + 9 + 1 bytes
// at most, no more than the longest record has.
[[gnu::always_inline]] inline unsigned char* put_known_context(unsigned char* to, int position,
                                                               const delta& moved) {
  const bool is_numbered = position > last_short_position;
  const auto number = unsigned(only_if(is_numbered, position - last_short_position));
  unsigned char* const number_at = to + 1;
  unsigned char* const delta_at =
      number_at + only_if(is_numbered, put_stop_bit(number_at, number) - number_at);
  unsigned char* const end =
      delta_at + only_if(!moved.is_in_lines, put_signed_stop_bit(delta_at, moved.units) - delta_at);
  const int place = std::min(position, last_short_position + 1) << position_shift;
  const auto low = only_if(moved.is_in_lines, (moved.lines ^ long_delta) & 0xF) ^ long_delta;
  store_le<1>(to, unsigned(place | low));
  return end;
}

// Puts a repeat count into the record at `head`, whose other bytes end at `to`.
unsigned char* put_repeat(unsigned char* head, unsigned char* to, unsigned repeat) {
  *head |= static_cast<unsigned char>(std::min(repeat, long_repeat) << repeat_shift);
  return repeat < long_repeat ? to : put_stop_bit(to, repeat - last_short_repeat);
}

}  // namespace

[[gnu::always_inline]] inline int VQcomp::cam_context(velk_trans_class trans, long long unit_addr,
                                                      int agent, long long& prev) {
  return contexts->touch({unit_addr, agent, trans}, prev);
}

template <class UnitAddress>
void VQcomp::prepare_contexts(const VQtransaction* transactions, std::size_t size,
                              UnitAddress unit_address) {
  contexts->prepare(size, [=](std::size_t i) {
    const VQtransaction& t = transactions[i];
    return context{unit_address(t), t.agent, t.trans};
  });
}

// The record of a transaction whose context is new; without repeats.
unsigned char* VQcomp::put_new_context(unsigned char* to, const VQtransaction& t,
                                       long long unit_addr) {
  to = store_le<1>(to, numbered_context | (unit_addr & 0xF));
  to = store_le<1>(to, new_context);
  to = put_stop_bit(to, static_cast<unsigned long long>(unit_addr) >> 4);
  return encode_agent_trans(to, t.trans, t.agent, wide_agents, agent_escape);
}

// A transaction that goes on where the front context's latest ended, one line further, costs
// nothing: it is counted, and the count is put into the head byte of the record that it repeats.
VQPACK_CLONES std::size_t VQcomp::codec_3_field_cmp(const VQtransaction* transactions,
                                                    std::size_t size) {
  unsigned char* const block_end = at(block_size);
  unsigned char* head = at(mark);  // of the latest record
  unsigned char* to = at(used);
  unsigned repeat = pending_repeat;
  long long distance = 0;
  const auto unit_address = [](const VQtransaction& t) { return to_units(t.addr, usual_unit); };
  prepare_contexts(transactions, size, unit_address);
  std::size_t done = 0;
  do {
    const VQtransaction& t = transactions[done++];
    const long long unit_addr = unit_address(t);
    long long prev = 0;
    const int position = cam_context(t.trans, unit_addr, t.agent, prev);
    distance += std::max(position, 0);
    const delta moved(t.trans, unit_addr, prev);
    if (position == 0 && moved.is_in_lines && moved.lines == 1 && repeat < most_repeats) {
      ++repeat;
    } else {
      head = repeat ? put_repeat(head, to, std::exchange(repeat, 0)) : to;
      to = position < 0 ? put_new_context(head, t, unit_addr)
                        : put_known_context(head, position, moved);
    }
  } while (done < size && to < block_end);
  pending_repeat = repeat;
  distance_sum += distance;
  mark = int(head - buffer.get());
  used = int(to - buffer.get());
  return done;
}

// With four fields the repeat count is the transaction's count.
VQPACK_CLONES std::size_t VQcomp::codec_4_field_cmp(const VQtransaction* transactions,
                                                    std::size_t size) {
  unsigned char* const block_end = at(block_size);
  unsigned char* to = at(used);
  long long distance = 0;
  const auto unit_address = [](const VQtransaction& t) {
    return to_units(t.addr, unit_with_count(t.trans));
  };
  prepare_contexts(transactions, size, unit_address);
  std::size_t done = 0;
  do {
    const VQtransaction& t = transactions[done++];
    const long long unit_addr = unit_address(t);
    long long prev = 0;
    const int position = cam_context(t.trans, unit_addr, t.agent, prev);
    distance += std::max(position, 0);
    unsigned char* const head = to;
    to = position < 0 ? put_new_context(head, t, unit_addr)
                      : put_known_context(head, position, {t.trans, unit_addr, prev});
    to = put_repeat(head, to, t.count);
  } while (done < size && to < block_end);
  distance_sum += distance;
  mark = used = int(to - buffer.get());
  return done;
}

// Completes the latest record.
void VQcomp::flushPendingRepeat() {
  used = mark =
      int(put_repeat(at(mark), at(used), std::exchange(pending_repeat, 0)) - buffer.get());
}

void VQcomp::put_byte(unsigned value) { *at(used++) = static_cast<unsigned char>(value); }

int VQcomp::finish(unsigned& contexts_used, unsigned& avg_distance, unsigned& address_bits) {
  require_turn();
  finished = true;
  flushPendingRepeat();
  crc->close();
  if (compressed)
    for (const unsigned char byte : end_of_contexts) put_byte(byte);
  else
    put_byte(end_of_raw);
  for (int shift = 24; shift >= 0; shift -= 8) put_byte(crc->value() >> shift);
  if (hdr_type == 0) {
    store_le<trailer_bytes>(at(used), static_cast<unsigned long long>(record_count));
    used += trailer_bytes;
  }
  mark = used;
  contexts_used = unsigned(contexts->size());
  avg_distance = record_count ? unsigned((record_count / 2 + distance_sum) / record_count) : 0;
  address_bits = std::max(addr_bits, 8u);
  return used;
}

namespace {

void write_bytes(FILE* file, const unsigned char* bytes, int size) {
  if (std::fwrite(bytes, 1, std::size_t(size), file) != std::size_t(size))
    fail(VQfault::cannot_write, cannot_write);
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

VQcomp_summary VQcomp::finish(FILE* file, PRUV_header_t* header) {
  if (hdr_type != 0 && !header) fail(VQfault::misuse, header_required);
  VQcomp_summary summary{};
  const int size = finish(summary.contexts, summary.avg_distance, summary.address_length);
  summary.transactions = record_count;
  const int body = hdr_type == 0 ? size - trailer_bytes : size;
  const long long end = handed_out + body;
  write_bytes(file, buffer.get(), body);
  if (hdr_type == 0) {
    summary.totals = put_count(file, end);
    reset_buffer();
  } else {
    reset_buffer();
    summary.totals = rewrite_header(file, end, *header, summary.address_length);
  }
  return summary;
}

// The last bytes in the buffer are the count: puts them into the preamble, or at the end.
VQtotals VQcomp::put_count(FILE* file, long long end) {
  const bool in_place = seek_to_preamble(file, end);
  write_bytes(file, at(used - trailer_bytes), trailer_bytes);
  if (in_place) seek_to(file, end);
  return in_place ? VQtotals::in_place : VQtotals::count_at_end;
}

VQtotals VQcomp::rewrite_header(FILE* file, long long end, PRUV_header_t& header,
                                unsigned address_length) {
  if (!seek_to_preamble(file, end)) {
    if (header.trans_count != record_count) return VQtotals::count_differs;
    return header.address_length == address_length ? VQtotals::in_place
                                                   : VQtotals::address_length_differs;
  }
  header.trans_count = record_count;
  header.address_length = address_length;
  int size;
  const std::unique_ptr<unsigned char[]> bytes(pruv_header_struct_to_bytes(header, size));
  if (size == hdr_len) write_bytes(file, bytes.get(), size);
  seek_to(file, end);
  return size == hdr_len ? VQtotals::in_place : VQtotals::header_resized;
}

// VQuncomp: the preamble, the road of the bytes from chunk to buffer, the record readers, and the
// checks at the end of the stream.

VQuncomp::VQuncomp()
    : current(&no_context),
      margin(usual_margin),
      crc(std::make_unique<checksum>()),
      contexts(std::make_unique<inslist<context>>()) {}

VQuncomp::~VQuncomp() = default;

void VQuncomp::fail(const char* msg, long long byte, VQfault fault) const {
  throw VQcomp_error{msg, record_number, byte, false, fault};
}

void VQuncomp::put(const unsigned char* data, int len) {
  if (input_left > 0) fail("Previous block hasn't been finished", base + head, VQfault::misuse);
  if (finished) fail("Input has already been finished", base + head, VQfault::misuse);
  input = data;
  input_left = std::max(len, 0);
  if (len <= 0) {
    finished = true;
    if (header_left > 0) fail(ends_early, base + head);
  } else if (header_left > 0) {
    if (!buffer) start_preamble();
    gather_preamble();
    if (header_left == 0) finish_preamble();
  }
}

void VQuncomp::start_preamble() {
  if (input_left < size_field + preamble_offset)
    fail_outside_records("Not enough in first block for header");
  if (std::memcmp(input, magic, sizeof magic) != 0)
    fail_outside_records("No magic number; is this a QUBIX?");
  version = input[version_offset];
  if (version > last_version)
    fail_outside_records("Input has bad version (must be 0-5)", version_offset);
  compressed = version == 1;
  four_field = version == 3 || version == 5;
  wide_agents = version > 3;
  hdr_type = VQcomp::hdr_type_for_version[version];
  header_left = trailer_bytes;
  base = preamble_offset;
  if (hdr_type != 0) {
    header_left = int(load_le<size_field>(input + preamble_offset));
    if (header_left < shortest_header)
      fail_outside_records(ends_early, preamble_offset + header_left);
    base += size_field;
  }
  make_buffer(std::max(smallest_capacity, header_left + 1));
  input += base;
  input_left -= int(base);
}

void VQuncomp::gather_preamble() {
  const int taken = std::min(header_left, input_left);
  take_input(taken);
  base += taken;
  header_left -= taken;
}

void VQuncomp::finish_preamble() {
  if (hdr_type == 0) {
    const auto stored = unsigned(load_le<sizeof unknown_count>(buffer.get()));
    header = std::make_unique<PRUV_header_t>();
    header->trans_count = stored == unknown_count ? -1 : static_cast<long long>(stored);
    header->cycle_count = header->trans_count;
  } else {
    header.reset(pruv_header_bytes_to_struct(buffer.get(), tail, version, int(base) - tail));
    compressed = header->compression != 0;
  }
  header->version = version;
  header->compression = compressed;
  if (!header->trans_names) header->use_default_trans_names();
  known_count = header->trans_count;
  name_count = header->trans_name_count;
  const unsigned kept = header->max_contexts ? header->max_contexts : no_limit;
  contexts->max_blocks = kept / inslist<context>::block_elements + 2;
  codec = choose_codec();
  head = tail = 0;
}

VQuncomp::codec_function VQuncomp::choose_codec() const {
  if (compressed) return four_field ? &VQuncomp::codec_4_field_cmp : &VQuncomp::codec_3_field_cmp;
  if (wide_agents)
    return four_field ? &VQuncomp::codec_4_field_raw_a2 : &VQuncomp::codec_3_field_raw_a2;
  return four_field ? &VQuncomp::codec_4_field_raw : &VQuncomp::codec_3_field_raw;
}

long long VQuncomp::known_length() const {
  if (header_left > 0) throw VQcomp_block{0};
  return known_count;
}

PRUV_header_t* VQuncomp::read_pruv_header() {
  if (header_left > 0) throw VQcomp_block{0};
  return header.release();
}

void VQuncomp::check() const {
  if (head < tail) fail("Some input left in uncompressor", base);
}

// Gives `buffer` room for `bytes` and keeps what it holds. The guard bytes behind `tail` end any
// number that is cut off there.
void VQuncomp::make_buffer(int bytes) {
  const int room = bytes + guard_bytes;
  auto made = std::make_unique<unsigned char[]>(std::size_t(room));
  std::copy_n(buffer.get(), tail, made.get());
  std::fill_n(made.get() + tail, guard_bytes, stop_bit);
  buffer = std::move(made);
  capacity = bytes;
}

// Moves the next `bytes` of the chunk behind the valid bytes.
void VQuncomp::take_input(int bytes) {
  std::copy_n(input, bytes, at(tail));
  tail += bytes;
  std::fill_n(at(tail), guard_bytes, stop_bit);
  input += bytes;
  input_left -= bytes;
}

// Sees to it that a record can be started: either more than `margin` bytes lie ahead, or all that
// are left of the input. False when another chunk is needed for that.
bool VQuncomp::look_ahead() {
  if (head < startable_end()) return true;
  if (finished) fail("Input ends early", base + tail);
  if (header_left > 0 || input_left == 0) return false;
  if (head > 0) {
    base += head;
    tail -= head;
    std::memmove(buffer.get(), at(head), std::size_t(tail));
    head = 0;
  }
  if (capacity <= margin) make_buffer(2 * margin);
  take_input(std::min(input_left, capacity - tail));
  set_margin(margin);
  return head < limit;
}

// After a record that was not whole: asks for twice the bytes, so that the bytes of an overlong
// record are not read over and over.
void VQuncomp::want_more() {
  if (finished) fail("Input ends early", base + tail);
  if (tail - head > longest_damaged_record) fail(too_long, base + head);
  set_margin(2 * (tail - head));
}

void VQuncomp::set_margin(int bytes) {
  margin = bytes;
  limit = tail - margin;
}

std::size_t VQuncomp::read(VQtransaction* transactions, std::size_t size) {
  while (look_ahead()) {
    const std::size_t delivered = (this->*codec)(transactions, size);
    if (margin != usual_margin) set_margin(usual_margin);  // one record needed more
    if (delivered > 0) {
      crc->fold(transactions, delivered, wide_agents, four_field);
      record_number += static_cast<long long>(delivered);
      return delivered;
    }
    switch (met) {
      case obstacle::end_of_records:
        check_end();
      case obstacle::bad_trans:
        fail("Transaction number out of range", base + head);
      case obstacle::bad_context:
        fail("Context number too high", base + head);
      case obstacle::too_long:
        fail(too_long, base + head);
      default:
        want_more();
    }
  }
  return 0;
}

void VQuncomp::read(velk_trans_class& trans, typeaddr& addr, int& agent, unsigned& count) {
  VQtransaction t;
  if (read(&t, 1) == 0) throw VQcomp_block{0};
  trans = t.trans;
  addr = t.addr;
  agent = t.agent;
  count = t.count;
}

// Checks what follows the end marker at `head`. Always throws: VQcomp_done when all is well.
void VQuncomp::check_end() {
  head += marker_bytes;
  if (tail - head < checksum_bytes) fail(ends_early, base);
  crc->fold(at(head), checksum_bytes);
  head += checksum_bytes;
  if (crc->value() != 0 || agent_bits > highest_wide_agent) fail("Bad checksum", base + head);
  if (known_count == -1) {
    if (tail - head < trailer_bytes) fail(ends_early, base + head);
    known_count = static_cast<long long>(load_le<trailer_bytes>(at(head)));
    head += trailer_bytes;
  }
  if (known_count != 0 && known_count != record_number - 1)
    fail("Bad transaction count", base + head);
  if (head < tail || !finished)
    fail("Extra data follows good checksum -- file is bad?", base + head);
  throw VQcomp_done{};
}

// An end marker, from `marker` up to `end`, which counts only when what check_end() looks at has
// come, too.
VQuncomp::obstacle VQuncomp::end_marker(const unsigned char* marker, const unsigned char* end) {
  constexpr int extra_byte = 1;  // whose presence is refused
  constexpr int looked_at = checksum_bytes + trailer_bytes + extra_byte;
  const auto behind = at(tail) - end;
  if (behind < 0 || (!finished && behind < looked_at)) return obstacle::incomplete;
  if (end - marker > longest_damaged_record) return obstacle::too_long;
  marker_bytes = int(end - marker);
  return obstacle::end_of_records;
}

template <int AgentBytes, bool Counted>
std::size_t VQuncomp::get_raw(VQtransaction* transactions, std::size_t size) {
  constexpr int bytes = 1 + AgentBytes + 8 + (Counted ? 4 : 0);
  std::size_t done = 0;
  met = obstacle::none;
  for (; done < size && head < startable_end(); head += bytes) {
    const unsigned char* const from = at(head);
    if (*from == end_of_raw)
      met = end_marker(from, from + 1);
    else if (tail - head < bytes)
      met = obstacle::incomplete;
    else if (*from >= name_count)
      met = obstacle::bad_trans;
    if (met != obstacle::none) break;
    VQtransaction& t = transactions[done++];
    t.trans = *from;
    t.agent = int(load_le<AgentBytes>(from + 1));
    t.addr = static_cast<typeaddr>(load_le<8>(from + 1 + AgentBytes));
    t.count = Counted ? unsigned(load_le<4>(from + bytes - 4)) : 1;
  }
  return done;
}

std::size_t VQuncomp::codec_3_field_raw(VQtransaction* transactions, std::size_t size) {
  return get_raw<1, false>(transactions, size);
}

std::size_t VQuncomp::codec_3_field_raw_a2(VQtransaction* transactions, std::size_t size) {
  return get_raw<2, false>(transactions, size);
}

std::size_t VQuncomp::codec_4_field_raw(VQtransaction* transactions, std::size_t size) {
  return get_raw<1, true>(transactions, size);
}

std::size_t VQuncomp::codec_4_field_raw_a2(VQtransaction* transactions, std::size_t size) {
  return get_raw<2, true>(transactions, size);
}

void VQuncomp::decode_agent_trans(const unsigned char*& from, velk_trans_class& trans, int& agent) {
  const unsigned char code = *from++;
  trans = code & ~no_agent;
  agent = 0;
  if (code & no_agent) return;
  if (!agent_escape) {
    agent = *from++;
    agent_escape = agent == escaped_agent && wide_agents;
  }
  if (agent_escape) agent = int(get_stop_bit<unsigned>(from));
}

// One context-coded record as it stands in the file.
struct VQuncomp::record_fields {
  bool is_new;  // introduces a context:
  typeaddr addr;
  int agent;
  velk_trans_class trans;
  // else:
  unsigned long long position;  // of its context
  bool in_lines;                // the delta counts lines of the context's size class
  long long delta;
  unsigned repeat;
};

// Takes the record at `from`, and moves `from` behind it, unless there is an obstacle. Damaged data
// can make it run on beyond `tail`, though not beyond the guard bytes; what it took is no record
// then.
[[gnu::always_inline]] inline VQuncomp::obstacle VQuncomp::get_record(const unsigned char*& from,
                                                                      record_fields& fields) {
  const unsigned char* const record = from;
  const unsigned char* next = from;
  const bool escape_before = agent_escape;
  const unsigned char first = *next++;
  const unsigned low = first & 0xF;
  fields.position = first >> position_shift & 3;
  fields.is_new = false;
  if (fields.position > last_short_position) {
    const unsigned char* const number_at = next;
    const unsigned number = get_stop_bit<unsigned>(next);
    if (number == 0 && next - number_at > 1) return end_marker(record, next);
    fields.is_new = number == 0;
    fields.position = static_cast<unsigned long long>(number) + last_short_position;
  }
  if (fields.is_new) {
    fields.addr = typeaddr(low | get_stop_bit<unsigned long long>(next) << 4);
    decode_agent_trans(next, fields.trans, fields.agent);
  } else {
    fields.in_lines = low != long_delta;
    fields.delta = fields.in_lines ? (int(low) ^ 8) - 8 : get_signed_stop_bit(next);
  }
  fields.repeat = first >> repeat_shift;
  if (fields.repeat == long_repeat)
    fields.repeat = get_stop_bit<unsigned>(next) + last_short_repeat;

  obstacle found = obstacle::none;
  if (next > at(tail))
    found = obstacle::incomplete;
  else if (next - record > longest_damaged_record)
    found = obstacle::too_long;
  else if (!fields.is_new && fields.position > 0 && fields.position >= contexts->size())
    found = obstacle::bad_context;
  else if ((fields.is_new ? fields.trans : current->trans) >= name_count)
    found = obstacle::bad_trans;
  if (found == obstacle::none)
    from = next;
  else
    agent_escape = escape_before;
  return found;
}

[[gnu::always_inline]] inline void VQuncomp::enter_context(const record_fields& fields) {
  if (fields.is_new) {
    agent_bits |= unsigned(fields.agent);
    current = contexts->insert({fields.addr, fields.agent, fields.trans});
    return;
  }
  if (fields.position > 0) current = contexts->lookup(unsigned(fields.position));
  if (fields.in_lines)
    move_lines(*current, fields.delta);
  else
    current->addr = wrapping_sum(current->addr, fields.delta);
}

// Delivers repeats of the latest record, each one line further.
std::size_t VQuncomp::get_repeats(VQtransaction* transactions, std::size_t size) {
  const std::size_t done = std::min<std::size_t>(size, pending_repeat);
  pending_repeat -= unsigned(done);
  for (std::size_t i = 0; i < done; ++i) {
    move_lines(*current, 1);
    transactions[i] = {from_units(current->addr, usual_unit), current->agent, 1, current->trans};
  }
  return done;
}

std::size_t VQuncomp::codec_3_field_cmp(VQtransaction* transactions, std::size_t size) {
  const unsigned char* from = at(head);
  const unsigned char* const end = at(std::max(startable_end(), head));
  std::size_t done = 0;
  met = obstacle::none;
  while (done < size && from < end) {
    if (pending_repeat > 0) {
      done += get_repeats(transactions + done, size - done);
      continue;
    }
    record_fields fields;
    met = get_record(from, fields);
    if (met != obstacle::none) break;
    enter_context(fields);
    pending_repeat = fields.repeat;
    transactions[done++] = {from_units(current->addr, usual_unit), current->agent, 1,
                            current->trans};
  }
  head = int(from - buffer.get());
  return done;
}

std::size_t VQuncomp::codec_4_field_cmp(VQtransaction* transactions, std::size_t size) {
  const unsigned char* from = at(head);
  const unsigned char* const end = at(std::max(startable_end(), head));
  std::size_t done = 0;
  met = obstacle::none;
  while (done < size && from < end) {
    record_fields fields;
    met = get_record(from, fields);
    if (met != obstacle::none) break;
    enter_context(fields);
    transactions[done++] = {from_units(current->addr, unit_with_count(current->trans)),
                            current->agent, fields.repeat, current->trans};
  }
  head = int(from - buffer.get());
  return done;
}

// velk_reader: text lines by the C library's own scanf, whose corners are the grammar's corners, or
// a decompressor fed in chunks.

namespace {

// Takes the name, cut off after 19 characters, and the numbers of a line. False for a line that is
// no transaction. Agent and count are scanned in 64 bits, of which the lower 32 count: where `long`
// has 32 bits, "%x" and "%u" would take numbers that are too large for something else.
bool scan_line(const char* line, char (&name)[20], long long& addr, int& agent, unsigned& count) {
  unsigned long long scanned_addr, scanned_agent, scanned_count;
  char next;
  const int fields = std::sscanf(line, "%19s%llx%llx %llu%c", name, &scanned_addr, &scanned_agent,
                                 &scanned_count, &next);
  if (fields < 3 || (fields == 5 && next != ' ' && next != '\n')) return false;
  addr = static_cast<long long>(scanned_addr);
  agent = static_cast<int>(scanned_agent);
  count = fields == 3 ? 1 : static_cast<unsigned>(scanned_count);
  return true;
}

}  // namespace

velk_reader::velk_reader(FILE* stream, name_parser parser)
    : file(stream),
      str2num(parser ? parser : velk_trans_str2num_type1),
      usual_names(str2num == velk_trans_str2num_type1) {
  if (!file) return;
  unsigned char first;
  if (read_bytes(file, &first, 1) == 0) {
    if (std::ferror(file)) fail(VQfault::cannot_read, cannot_read);
    return;
  }
  std::ungetc(first, file);
  if (first == magic[0]) uncomp = std::make_unique<VQuncomp>();
}

velk_reader::~velk_reader() = default;

text_source& velk_reader::text_lines() {
  if (!file) fail(VQfault::misuse, "No input file open");
  if (!text) text = std::make_unique<text_source>(file);
  return *text;
}

// Hands the next chunk of the stream to the decompressor; an empty one is the end of the input, or
// of what can be read of it.
void velk_reader::feed() {
  chunk_len = std::ferror(file) ? 0 : int(read_bytes(file, chunk, sizeof chunk));
  try {
    uncomp->put(chunk, chunk_len);
  } catch (const VQcomp_error& error) {
    throw cause_of(error);
  }
}

// What the decompressor finds wrong with an input after a failed read comes from that.
VQcomp_error velk_reader::cause_of(VQcomp_error error) const {
  if (!std::ferror(file)) return error;
  return {cannot_read, error.record, 0, false, VQfault::cannot_read};
}

std::size_t velk_reader::read(VQtransaction* transactions, std::size_t size) {
  if (!uncomp) return read_lines(transactions, size);
  try {
    for (;; feed())
      if (const std::size_t delivered = uncomp->read(transactions, size)) {
        line_no += delivered;
        return delivered;
      }
  } catch (const VQcomp_error& error) {
    throw cause_of(error);
  } catch (const VQcomp_done&) {
    uncomp.reset();
    if (std::ferror(file)) fail(VQfault::cannot_read, cannot_read);
    return 0;
  }
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

std::size_t velk_reader::read_lines(VQtransaction* transactions, std::size_t size) {
  text_source& lines = text_lines();
  std::size_t done = 0;
  while (done < size && lines.look_ahead()) {
    if (usual_names) {
      const char* at = lines.at();
      const std::size_t usual =
          line_scan::scan_usual_lines(at, lines.whole_before(), transactions + done, size - done);
      lines.skip_to(at);
      line_no += usual;
      done += usual;
      if (usual > 0) continue;
    }
    const std::string_view line = lines.piece(longest_line);
    const bool is_whole = line.back() == '\n' || line.size() == longest_line;
    if (!is_whole && lines.failed()) break;
    const char* const msg = read_any_line(line, transactions[done]);
    if (msg && done > 0) break;
    lines.skip(line.size());
    ++line_no;
    if (msg) fail_at_line(msg, VQfault::bad_input);
    ++done;
  }
  if (done == 0) {
    ++line_no;  // the attempt at the end counts, too
    if (lines.failed()) fail_at_line(cannot_read, VQfault::cannot_read);
  }
  return done;
}

void velk_reader::fail_at_line(const char* msg, VQfault fault) const {
  throw VQcomp_error{msg, static_cast<long long>(line_no), 0, false, fault};
}

// Returns the message of a refusal, or null.
const char* velk_reader::read_any_line(std::string_view line, VQtransaction& t) const {
  char copy[longest_line + 1] = {};
  line.copy(copy, line.size());
  char name[20];
  if (!scan_line(copy, name, t.addr, t.agent, t.count)) return "Bad input line";
  try {
    t.trans = str2num(name);
  } catch (bool) {
    return "Unknown transaction";
  }
  return nullptr;
}

unsigned long long velk_reader::length() { return uncomp ? recorded_length() : count_lines(); }

unsigned long long velk_reader::count_lines() {
  text_source& lines = text_lines();
  for (;; ++line_no) {
    const std::string_view piece = lines.piece(longest_counted_piece);
    if (piece.empty()) return line_no;
    rewind_needed = true;
    lines.skip(piece.size());
  }
}

unsigned long long velk_reader::recorded_length() {
  for (;;) {
    try {
      const long long known = uncomp->known_length();
      return known == -1 ? trailing_length() : static_cast<unsigned long long>(known);
    } catch (const VQcomp_block&) {
      feed();
    }
  }
}

// The count trailer, the last bytes of the input, which is spent then.
unsigned long long velk_reader::trailing_length() {
  unsigned char trailer[trailer_bytes];
  if (fseeko(file, -trailer_bytes, SEEK_END) == 0) {
    if (read_bytes(file, trailer, sizeof trailer) != sizeof trailer)
      fail_outside_records("Error reading length from QUBIX");
  } else {
    while (chunk_len == chunk_size) chunk_len = int(read_bytes(file, chunk, sizeof chunk));
    // Behind the end of a short chunk stands the end of the chunk before it.
    for (int i = 0; i < trailer_bytes; ++i)
      trailer[i] = chunk[(chunk_len + chunk_size - trailer_bytes + i) % chunk_size];
  }
  uncomp.reset();
  rewind_needed = true;
  return load_le<trailer_bytes>(trailer);
}

std::unique_ptr<PRUV_header_t> velk_reader::recorded_header() {
  for (;;) {
    try {
      return std::unique_ptr<PRUV_header_t>(uncomp->read_pruv_header());
    } catch (const VQcomp_block&) {
      feed();
    }
  }
}

PRUV_header_t* velk_reader::pruv_header(bool want_count) {
  std::unique_ptr<PRUV_header_t> header;
  if (uncomp) {
    header = recorded_header();
    if (!header) fail(VQfault::misuse, "PRUV header has already been taken");
    if (header->trans_count != -1) return header.release();
  } else {
    header = std::make_unique<PRUV_header_t>();
    header->version = -1;
    header->trans_count = -1;
    header->use_default_trans_names();
  }
  if (want_count) header->trans_count = header->cycle_count = static_cast<long long>(length());
  return header.release();
}
