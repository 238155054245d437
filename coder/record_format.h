// Facts of the QUBIX format that its writer and its reader share: qubix(5).
#pragma once

#include <algorithm>
#include <array>
#include <iterator>

#include "stop_bit.h"
#include "vqtypes.h"

namespace vqpack::detail {

// The preamble.
inline constexpr char magic[] = {'Q', 'U'};
inline constexpr int version_offset = 2;
inline constexpr int preamble_offset = 3;  // of the transaction count, or of the PRUV header
inline constexpr int last_version = 5;
inline constexpr int size_field = 2;   // bytes of a PRUV header before those that it counts
inline constexpr int min_header = 30;  // that its size field may hold
inline constexpr unsigned unknown_count = ~0u;  // the count stands in the trailer
inline constexpr unsigned no_limit = ~0u;       // of contexts

constexpr bool has_header(int version) { return version > 1; }
constexpr bool has_counts(int version) { return version == 3 || version == 5; }
constexpr bool has_wide_agents(int version) { return version > 3; }
inline constexpr unsigned max_agent = 0xFF;
inline constexpr unsigned max_wide_agent = 0xFFFF;

// The end.
inline constexpr unsigned char end_of_raw = 0xFF;
inline constexpr unsigned char end_of_contexts[] = {0x30, 0x00, 0x80};
inline constexpr int checksum_bytes = 4;
inline constexpr int trailer_bytes = 4;  // the count, of types 0 and 1 that could not seek

// Context-coded records.
inline constexpr int repeat_shift = 6;  // the head byte's upper two bits
inline constexpr unsigned max_short_repeat = 2;
inline constexpr unsigned long_repeat = 3;  // a number follows the record
inline constexpr int position_shift = 4;    // the next two
inline constexpr unsigned char numbered_context = 0x30;
inline constexpr int max_short_position = 2;
inline constexpr unsigned char delta_mask = 0xF;  // the other four, a number of lines or
inline constexpr unsigned char long_delta = 8;
inline constexpr int max_short_delta = 7;
inline constexpr unsigned char new_context = 0x80;  // context number 0
inline constexpr unsigned char no_agent = 0x80;     // in the code byte: agent 0, no byte follows
inline constexpr unsigned char escaped_agent = 0xFF;

// The longest record is a new context: head, context number, address, code, escape and agent. The
// repeat count of the record before it may be written in the same call.
inline constexpr int upper_address_bits = 64 - 3 - 4;
inline constexpr int max_repeat_bytes = stop_bit_bytes(32);
inline constexpr int max_record_bytes =
    1 + 1 + stop_bit_bytes(upper_address_bits) + 1 + 1 + stop_bit_bytes(16);
inline constexpr int max_record_and_repeat = max_record_bytes + max_repeat_bytes;
inline constexpr int max_end_bytes = int(sizeof end_of_contexts) + checksum_bytes + trailer_bytes;

constexpr bool is_deferred_reply(velk_trans_class trans) { return trans == 47 || trans == 48; }

// The shift from 8-byte units to the lines that transactions of a type span. A header with more
// names than the table makes the codes beyond it legal; they span 8 bytes.
inline constexpr auto line_shifts = [] {
  std::array<unsigned char, 256 / 8> shifts{};
  std::copy(std::begin(velk_line_shifts), std::end(velk_line_shifts), shifts.begin());
  return shifts;
}();

constexpr int line_shift(velk_trans_class trans) { return line_shifts[trans >> 3]; }

// Context codecs count addresses in units of 1 << shift bytes: 8 bytes, except that the deferred
// replies, whose address has only bits 16 to 23, take 64 KiB where counts are kept.
template <bool Counted>
int address_unit_shift(velk_trans_class trans) {
  return Counted && is_deferred_reply(trans) ? 16 : 3;
}

}  // namespace vqpack::detail
