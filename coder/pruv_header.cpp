// The PRUV header: the record, its encoder and its decoder. The CRC is not over the stored bytes
// but over an image of the field values, in which most fields are wider than in the file: qubix(5).
#include <algorithm>
#include <climits>
#include <cstring>
#include <iterator>
#include <memory>
#include <vector>

#include "bytes.h"
#include "checksum.h"
#include "errors.h"
#include "record_format.h"
#include "vqcomp.h"

using namespace vqpack::detail;

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
constexpr int fixed_bytes_1 = 28;  // header type 1, after the size field
constexpr int fixed_bytes_2 = 44;
constexpr int list_count_bytes = 5;
constexpr int sensitivity_bytes = 23;
constexpr int max_contexts_bytes = 5;
constexpr int crc_bytes = 4;
constexpr unsigned char expansion_end = 0;
constexpr unsigned char expansion_max_contexts = 1;
constexpr int max_list = 255;
constexpr int max_header = 65535;

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
      {h.extra_shorts_1_count > max_list, "PRUV header: more than 255 extra shorts 1"},
      {h.trans_name_count > max_list, "PRUV header: more than 255 transaction names"},
      {h.extra_string_count > max_list, "PRUV header: more than 255 extra strings"},
      {h.extra_shorts_2_count > max_list, "PRUV header: more than 255 extra shorts 2"},
      {h.sensitivity_count > max_list, "PRUV header: more than 255 sensitivity points"},
      {size > max_header, "PRUV header: comment and lists above 65535 bytes"},
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
  int left;  // bytes of the header from `at` on
  long long end_offset;

  void need(int bytes) const {
    if (left < bytes) fail(VQfault::bad_input, ends_early, 0, end_offset);
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
  if (bytes == 0) fail(VQfault::bad_input, ends_early, 0, from.end_offset);
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
        fail(VQfault::bad_input, "Unknown expansion field in PRUV header", 0, tag_offset);
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
  if (from.left > 0)
    fail(VQfault::bad_input, "Unknown junk at end of PRUV header", 0, from.end_offset);

  // The size fails where the fields could have been encoded in fewer bytes.
  int size;
  if (VQcomp::pruv_header_size_and_crc(*header, size) != stored_crc || size != length)
    fail(VQfault::bad_input, "PRUV header has bad CRC", 0, offset + fixed_bytes - crc_bytes);
  return header.release();
}

short* VQuncomp::unpack_shorts(const unsigned char*& p, int& left, int& count) {
  if (left < 1) fail(VQfault::bad_input, ends_early);
  const int listed = *p;
  if (left < 2 * listed + 1) fail(VQfault::bad_input, ends_early);
  ++p;
  left -= 2 * listed + 1;
  short* const values = listed ? make_owned<short>(listed) : nullptr;
  for (int i = 0; i < listed; ++i, p += 2) values[i] = short(load_le<2>(p));
  count = listed;
  return values;
}

char** VQuncomp::unpack_strings(const unsigned char*& p, int& left, int& count) {
  if (left < 1) fail(VQfault::bad_input, ends_early);
  std::vector<std::unique_ptr<char[]>> strings(*p++);
  --left;
  for (auto& string : strings) {
    const int bytes = string_bytes(p, left);
    if (bytes == 0) fail(VQfault::bad_input, ends_early);
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
