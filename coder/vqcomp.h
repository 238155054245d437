// The QUBIX coder: memory-bus transactions to QUBIX files and back, and VELK text to transactions.
//
// A transaction is four values that travel together through every call:
//   trans   its type, a code of 0 to 67 (the names: VQcomp::FSB_transactions);
//   addr    its byte address, a multiple of 8; of the codes 47 and 48 (deferred replies) only
//           bits 16 to 23 are kept;
//   agent   the number of the bus agent that issued it, 0 to 255 in file types 0 to 3 and
//           0 to 65535 in types 4 and 5;
//   count   an unsigned number that the user of the trace gives a meaning; only file types 3 and 5
//           store it, elsewhere it reads back as 1.
//
// To write a file: construct a VQcomp over a stream, call record() for each transaction, then
// finish(). To read one: velk_reader over a stream, of text or QUBIX; or VQuncomp, fed by hand. The
// programs in examples/ do both.
//
// Installed, this is <vqpack/vqcomp.h>, needs C++20 and links with CMake's vqpack::vqcomp, from
// find_package(vqpack), or what `pkg-config --cflags --libs vqpack` prints.
//
// Every failure is a VQcomp_error, thrown by value, except that std::bad_alloc passes through where
// memory runs out; the object can then only be destroyed. VQcomp_block and VQcomp_done are signals,
// not failures. None of the objects may be used by two threads at once.
#pragma once

// The version of the library that goes with this header.
#define VQCOMP_VERSION_MAJOR 0
#define VQCOMP_VERSION_MINOR 1
#define VQCOMP_VERSION_PATCH 0

#include <cstddef>
#include <cstdio>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include "vqtypes.h"

namespace vqpack::detail {
class compressor;
class decompressor;
class trace_input;
}  // namespace vqpack::detail

// Transaction names

// The code of a name. Takes the 68 names of VQcomp::FSB_transactions and, for the codes 64 to 67,
// also the forms with no size or another size ("VXB", "VXB16B"). Throws a bool, false, for any
// other name.
VQCOMP_EXPORT velk_trans_class velk_trans_str2num_type1(const char* name);

// The name of a code, in static storage. Throws a bool, false, for codes above 67.
VQCOMP_EXPORT const char* velk_trans_num2str_type1(velk_trans_class trans);

// The code of one of the 68 names, as a constant: `case velk_trans_code("MEMRD64B"):`. A name that
// is not in the table does not compile.
consteval velk_trans_class velk_trans_code(std::string_view name) {
  velk_trans_class trans = 0;
  while (name != velk_trans_names[trans]) ++trans;
  return trans;
}

// Which way a transaction moves data between memory or a device and the agent that issued it.
enum class velk_access { none, read, write };

// CDRD, IORD, MEMRD and RDINV of any size read; LNWR, IOWR, MEMWR, WRINV, WBMTOE64B and WBMTOS64B
// write. All others, and codes above 67, do neither: interrupts, replies, special cycles, reserved
// codes, VXB64B and VXBNC64B, and IOWR_RSVD.
constexpr velk_access velk_trans_access(velk_trans_class trans) {
  constexpr int sized = 40;  // below it, families that read and families that write alternate
  if (trans < sized) return trans & 1 ? velk_access::write : velk_access::read;
  const bool writes_back =
      trans == velk_trans_code("WBMTOE64B") || trans == velk_trans_code("WBMTOS64B");
  return writes_back ? velk_access::write : velk_access::none;
}

// PRUV header: the metadata of a trace

// One cache-sensitivity measurement. The first three fields identify it.
struct sensitivity_point_t {
  unsigned config_type;  // 0 to 255
  unsigned mlc_size;     // 0 to 65535
  unsigned llc_size;
  unsigned instructions;
  unsigned cycles;
  unsigned llc_refs;
  unsigned llc_misses;
};

// The metadata of one trace. File types 2 and 3 store it as header type 1, types 4 and 5 as header
// type 2, which keeps the totals in 64 bits and adds the fields marked [2]. The widths in brackets
// are those of the file; the encoder refuses values that do not fit, except that header type 1 cuts
// off all totals once one of them is negative. qubix(5).
//
// The record owns its arrays and strings: all are allocated with array new and freed by the
// destructor. It is handled through a pointer and never copied.
struct VQCOMP_EXPORT PRUV_header_t {
  PRUV_header_t() = default;
  ~PRUV_header_t();
  PRUV_header_t(const PRUV_header_t&) = delete;
  PRUV_header_t& operator=(const PRUV_header_t&) = delete;

  // Back to no names at all; frees them if they are owned.
  void drop_trans_names();
  // The 68 names of VQcomp::FSB_transactions, in place of what was there.
  void use_default_trans_names();

  unsigned threads = 0;         // [16 bits]
  unsigned cache_size_kib = 0;  // [32]
  unsigned line_size = 0;       // bytes [16]
  unsigned extra_byte_1 = 0;    // neither set nor interpreted here, only carried [8]
  unsigned extra_byte_2 = 0;    // likewise [8]
  unsigned address_length = 0;  // significant address bits [8]
  long long trans_count = 0;    // transactions; -1: not known [32 or 64]
  long long inst_count = 0;     // instructions [32 or 64]
  long long cycle_count = 0;    // [32 or 64]
  int version = 0;              // file type 0 to 5; -1: text [not stored here]
  unsigned compression = 0;     // 0: raw records; else context-coded [8]
  unsigned trans_set = 0;       // [2] this and the next three: only 0 can be encoded
  unsigned capture_point = 0;
  unsigned gen_method = 0;
  unsigned address_properties = 0;
  unsigned max_contexts = 0;        // [2] most contexts that the coder keeps; 0: no limit
  int extra_shorts_1_count = 0;     // this and the other four lengths: 0 to 255
  short* extra_shorts_1 = nullptr;  // neither set nor interpreted here, only carried
  int trans_name_count = 0;
  const char* const* trans_names = nullptr;  // by code
  bool trans_names_static = true;            // the names are not owned
  int extra_string_count = 0;
  char** extra_strings = nullptr;  // carried only
  int extra_shorts_2_count = 0;
  short* extra_shorts_2 = nullptr;  // carried only
  int sensitivity_count = 0;
  sensitivity_point_t* sensitivity = nullptr;
  char* comment = nullptr;  // [2] null: none
};

// The report of a header for people, one field a line: the file type and the total of transactions,
// and for file types 2 to 5 the other totals, the sizes and the compression.
template <class Char, class Traits>
std::basic_ostream<Char, Traits>& operator<<(std::basic_ostream<Char, Traits>& out,
                                             PRUV_header_t& header) {
  out << "QUBIX version: " << header.version << (header.version < 0 ? " (legacy/text)" : "")
      << std::endl;
  out << "Total transactions: " << header.trans_count << std::endl;
  if (header.version < 2) return out;
  out << "Total instructions: " << header.inst_count << std::endl;
  out << "Total cycles: " << header.cycle_count << std::endl;
  out << "Threads: " << header.threads << std::endl;
  out << "Cache size: " << header.cache_size_kib << " KiB" << std::endl;
  out << "Line size: " << header.line_size << " B" << std::endl;
  out << "Address length: " << header.address_length << std::endl;
  out << "Compression: " << header.compression << std::endl;
  return out;
}

// VQcomp: transactions to a QUBIX file

// What the start of a finished file says of its transactions.
enum class VQtotals {
  in_place,                // the true count and, in types 2 to 5, the true address length
  count_at_end,            // types 0 and 1: the count follows the checksum, as readers expect
  count_differs,           // types 2 to 5: another count, at which readers report "Bad transaction
                           // count" after the last transaction, unless it is 0
  address_length_differs,  // types 2 to 5: another address length; no reader minds
  header_resized           // types 2 to 5: what the constructor got, as the header has another
                           // size now
};

// How a file came out.
struct VQcomp_summary {
  long long transactions;
  unsigned contexts;        // in use at the end; 0 for raw coding
  unsigned avg_distance;    // mean list position at which contexts were found, rounded; 0 for an
                            // empty file
  unsigned address_length;  // bits of the largest address, at least 8
  VQtotals totals;
};

// Builds one QUBIX file in `buffer` and hands it out in blocks. The calls, in order: the
// constructor; record() for each transaction; finish().
//
// With a stream (`out`) the blocks are written there. Without one, record() throws VQcomp_block
// whenever a block is full: the caller writes that many bytes from the start of `buffer`, calls
// reset_buffer() and goes on with the *next* transaction; the one that was given has been recorded.
//
// The count of transactions is known only at the end. finish(FILE*, ...) puts it in its place where
// the stream can seek. Elsewhere types 0 and 1 carry it after the checksum, as readers expect; in
// types 2 to 5 the header's `trans_count` stays as the constructor got it: readers refuse a file
// that holds another number of transactions, but take 0 for any, and cannot use -1, so give the
// constructor the true number or 0.
class VQCOMP_EXPORT VQcomp {
 public:
  // The names by code.
  static constexpr const char* const (&FSB_transactions)[68] = velk_trans_names;
  // By `code >> 3`: a transaction spans 8 << shift bytes.
  static constexpr const unsigned char (&trans2line_size)[9] = velk_line_shifts;
  // By file type: 0 no header, else the header type.
  static constexpr int hdr_type_for_version[6] = {0, 0, 1, 1, 2, 2};

  using context = VQcontext;

  // `out` may be null; it is not owned. `version` is the file type, 0 to 5. `header` is required
  // for types 2 to 5, which store it; its name list is dropped (files carry none) and its `version`
  // set. It must outlive only the call. For types 0 and 1 it may be null and gives the context
  // limit alone. `size`, 84 to 65536, is the fill level in bytes at which a block is handed out.
  // `window` is the distance in bytes, less than which an address may lie from a context's latest
  // to be coded against it; it is rounded down to 8-byte units, so that below 8 nothing matches.
  // (Where four-field files count the addresses of deferred replies in units of 64 KiB, it is the
  // same number of those.)
  // vqpack(1) takes a `size` of 1024, a `window` of 65535 and a context limit of 16383.
  // Throws VQcomp_error, without positions, for arguments out of range and headers that cannot be
  // encoded.
  VQcomp(FILE* out, int version, PRUV_header_t* header, int size, long long window);

  // Writes what is left in the buffer when there is a stream, and throws VQcomp_error "Can't write
  // output" when that fails. Throws "Compressor killed with output remaining" when there is none
  // and the buffer is not empty. Both carry the number of transactions as `record`. Throws nothing
  // when `aborted` is set or while another exception unwinds the stack.
  ~VQcomp() noexcept(false);

  VQcomp(const VQcomp&) = delete;
  VQcomp& operator=(const VQcomp&) = delete;

  // Records one transaction. Throws VQcomp_error with its 1-based number as `record`: "Transaction
  // out of range", "Lowest 3 bits of address not 0" and "Agent ID too big for this version" for one
  // that is refused and not coded; "Can't write output" when a stream does not take a block;
  // "Previous block hasn't been written" and "Output has already been finished" for a call out of
  // order, which changes nothing. Throws VQcomp_block as described above.
  void record(velk_trans_class trans, long long addr, int agent, unsigned count);

  // Records several, of which it cuts the addresses of deferred replies as the file does. Stops at
  // most 63 after the one that makes a block full, and before one that record() refuses unless that
  // is the very first, which is refused the same way. Returns the number recorded, at least 1 if
  // `size` is. Throws as the other record() does, except for VQcomp_block: ready() gives the size
  // of the blocks that became full, and they must be out of the buffer before the next call.
  std::size_t record(VQtransaction* transactions, std::size_t size);

  // The bytes at the start of `buffer` that must be written now, which are those of one or more
  // full blocks: 0 until there is one.
  int ready() const;

  // Completes the file: writes what is left to `file`, which must have received all blocks so far
  // and nothing after them, and then puts the true totals at its start: in types 0 and 1 the count;
  // in types 2 to 5 the header as it is now, with `trans_count` and `address_length` set to the
  // true ones and what the records depend on to what it was. The stream's position is then the end
  // of the file. A stream that cannot seek, in which the file does not start at offset 0, or whose
  // descriptor appends, is left as it is, and the summary says what its start holds. `header` is
  // the constructor's for types 2 to 5, and must keep the lengths of its strings and lists; types 0
  // and 1 do not look at it. Throws VQcomp_error, without positions: "Can't write output", and what
  // pruv_header_struct_to_bytes() throws; for a call out of order as record() does. Does not flush
  // or close `file`, which the caller still has to check.
  VQcomp_summary finish(FILE* file, PRUV_header_t* header);

  // The same for a caller who writes the bytes: completes the file in `buffer` and returns the
  // number of bytes there, all of which must be written before reset_buffer() is called. For file
  // types 0 and 1 the last four of them are the count: a writer that can seek puts those at offset
  // 3 instead. For types 2 to 5 a writer that can seek rewrites the header at offset 3 where
  // `trans_count` or `address_length` turned out different. The outputs are as in VQcomp_summary.
  int finish(unsigned& contexts, unsigned& avg_distance, unsigned& address_bits);

  // Drops the bytes that have been handed out. Throws VQcomp_error "No block is ready" where none
  // have.
  void reset_buffer();

  // The CRC of a header's field values and, in `size`, what its size field must hold: the encoded
  // bytes less 2. Throws VQcomp_error when `version` names no type with a header.
  static unsigned pruv_header_size_and_crc(const PRUV_header_t& header, int& size);

  // The encoded header, size field included, allocated with array new and owned by the caller;
  // `size` receives its length in bytes. Sets `max_contexts` to 0 when `compression` is 0. Throws
  // VQcomp_error, without positions, for values that the header type cannot hold, and for negative
  // lengths.
  static unsigned char* pruv_header_struct_to_bytes(PRUV_header_t& header, int& size);

  std::unique_ptr<unsigned char[]> buffer;  // the bytes of the file that were not yet handed out
  int hdr_len;                              // bytes between the type byte and the first record
  bool aborted = false;  // set by a caller that gives up, where finish(FILE*, ...) fails and where
                         // memory runs out: the destructor then stays silent

 private:
  std::unique_ptr<vqpack::detail::compressor> coder;
};

// VQuncomp: a QUBIX file to transactions

// Decodes one QUBIX file that is handed over in chunks. The owner calls read(); when that throws
// VQcomp_block, it hands over the next chunk with put() and calls again; VQcomp_done is the end of
// a good file. After a VQcomp_error the object may only be destroyed. What it delivers does not
// depend on how the file is cut into chunks; the byte position of "QUBIX file ends prematurely"
// after an end marker, which is that of the buffer's first byte, is the one thing that does.
class VQCOMP_EXPORT VQuncomp {
 public:
  using typeaddr = long long;

  using context = VQcontext;

  VQuncomp();
  ~VQuncomp();
  VQuncomp(const VQuncomp&) = delete;
  VQuncomp& operator=(const VQuncomp&) = delete;

  // Hands over the next `len` bytes of the file, at least 5 of them the first time; 0 or less
  // announces the end. The chunk must stay untouched until the decoder asks for more. Throws
  // VQcomp_error for a bad preamble, and when a chunk comes that was not asked for.
  void put(const unsigned char* data, int len);

  // Delivers the next transaction. Throws VQcomp_block, VQcomp_done, or VQcomp_error with the
  // 1-based number of the transaction and a byte offset. Inside a record, with its offset:
  // "Transaction number out of range", "Context number too high" and, above 16 MiB, which only
  // numbers with useless bytes can make, "Record too long". After the end marker, with the offset
  // of what was not consumed: "QUBIX file ends prematurely", "Bad checksum" (also where an agent
  // was above 65535, which only damage can do: the checksum covers 16 bits), "Bad transaction
  // count", "Extra data follows good checksum -- file is bad?". Where the file ends without an end
  // marker, with its size: "Input ends early".
  void read(velk_trans_class& trans, typeaddr& addr, int& agent, unsigned& count);

  // Delivers up to `size` (1 or more) transactions, as many as it can without another chunk, and
  // returns how many. Returns 0 where the other read() throws VQcomp_block, and throws the rest as
  // that does, once all transactions before have been delivered.
  std::size_t read(VQtransaction* transactions, std::size_t size);

  // The count of transactions in the preamble, -1 when it stands in the trailer. Throws
  // VQcomp_block while preamble bytes are missing.
  long long known_length() const;

  // The file's header, for types 0 and 1 one made from the preamble. It then belongs to the caller:
  // a second call returns null. Throws VQcomp_block while preamble bytes are missing.
  PRUV_header_t* read_pruv_header();

  // Throws VQcomp_error "Some input left in uncompressor" when bytes taken from the chunks have not
  // been decoded.
  void check() const;

  // Decodes the header whose size field holds `length` and whose bytes follow at `bytes`. `version`
  // is the file type, 2 to 5; `offset`, the file position of `bytes`, serves the positions in
  // errors. Returns a new record that the caller owns. Throws VQcomp_error.
  static PRUV_header_t* pruv_header_bytes_to_struct(const unsigned char* bytes, int length,
                                                    int version, int offset);

  // Decode one counted list at `p`, move `p` past it and lower `left`, the header bytes that
  // remain. Return an array for the caller to own, null when the list is empty; `count` receives
  // its length. Throw VQcomp_error, without positions, when the list does not fit into `left`.
  static short* unpack_shorts(const unsigned char*& p, int& left, int& count);
  static char** unpack_strings(const unsigned char*& p, int& left, int& count);

 private:
  std::unique_ptr<vqpack::detail::decompressor> decoder;
};

// velk_reader: transactions from a trace of either kind

// Reads a stream that holds VELK text or a QUBIX file; the first byte decides. Order of calls:
// is_text(); pruv_header(), once; when needs_rewind() then holds, a new reader over the reopened
// stream; read() until it returns false. Only VQcomp_error and std::bad_alloc leave a reader.
//
// A failed read is not the end of the input: once all whole transactions before it have been
// delivered, read() throws VQcomp_error "Can't read input", with the number of the transaction that
// it had reached, if any was missing. A line that it cut off is not delivered. Signals that
// interrupt a read, and short reads, do not matter. Whether a process that feeds the stream has
// ended well only its owner knows, and should ask once read() has returned false.
class VQCOMP_EXPORT velk_reader {
 public:
  using name_parser = velk_trans_class (*)(const char* name);

  // `file` is not owned and never closed; its error indicator must not be set, and it must be able
  // to push back one byte. `str2num` maps transaction names to codes and throws a bool for a name
  // that it does not know; null takes velk_trans_str2num_type1. Throws VQcomp_error "Can't read
  // input", without positions, when the first read fails.
  velk_reader(FILE* file, name_parser str2num);
  virtual ~velk_reader();
  velk_reader(const velk_reader&) = delete;
  velk_reader& operator=(const velk_reader&) = delete;

  // The input's header, which belongs to the caller; for text a default one. With `want_count`, a
  // total that the preamble does not hold is counted with length(). Throws what VQuncomp::put() and
  // length() throw, "Can't read input" when a read of the preamble fails, and "PRUV header has
  // already been taken" for a second call on QUBIX.
  virtual PRUV_header_t* pruv_header(bool want_count);

  // The number of transactions in the input. May consume the input, and then sets needs_rewind().
  // Text is counted by lines, in pieces of at most 98 characters, and not parsed. A failed read
  // ends the count early; std::ferror(fp()) then holds. Throws VQcomp_error, without positions, "No
  // input file open" and "Error reading length from QUBIX", and what VQuncomp::put() throws.
  virtual unsigned long long length();

  // Delivers the next transaction; false at the end of the input. `count` is 1 where the input
  // gives none. Throws VQcomp_error: for text with the 1-based line number as `record`, for QUBIX
  // what VQuncomp throws, and "Can't read input" as described above. Text lines: velk(5).
  virtual bool read(velk_trans_class& trans, long long& addr, int& agent, unsigned& count);
  virtual bool read(velk_trans_class& trans, long long& addr, int& agent);

  virtual FILE* fp() const;
  // Whether the input is text. True also for a QUBIX input that has been read to its end.
  virtual bool is_text() const;
  virtual bool needs_rewind() const;

  // Delivers up to `size` (1 or more) transactions and returns how many, 0 at the end only. Throws
  // like the other read(), once all transactions before the fault have been delivered.
  virtual std::size_t read(VQtransaction* transactions, std::size_t size);

 private:
  std::unique_ptr<vqpack::detail::trace_input> state;
};
