// What all of the coder knows: transactions, their types and names, errors and signals. Part of
// vqcomp.h, which includes it and says how they are used.
#pragma once

#include <string>

// Before what a shared library exports.
#define VQCOMP_EXPORT [[gnu::visibility("default")]]

// Transactions

using velk_trans_class = unsigned char;

// The four values of a transaction where many are handed over at once. 24 bytes on every machine.
struct alignas(8) VQtransaction {
  long long addr;
  int agent;
  unsigned count;
  velk_trans_class trans;
};

// The latest transaction of its type and agent near some address.
struct VQcontext {
  long long addr = 0;  // in the codec's address units
  int agent = 0;
  velk_trans_class trans = 68;  // no transaction, until it is filled in
};

// Names by code: eight types without a size, with three sizes and an unknown one; then others.
// clang-format off
inline constexpr const char* velk_trans_names[68] = {
    "CDRD", "LNWR", "IORD", "IOWR", "MEMRD", "MEMWR", "RDINV", "WRINV",
    "CDRD16B", "LNWR16B", "IORD16B", "IOWR16B", "MEMRD16B", "MEMWR16B", "RDINV16B", "WRINV16B",
    "CDRD32B", "LNWR32B", "IORD32B", "IOWR32B", "MEMRD32B", "MEMWR32B", "RDINV32B", "WRINV32B",
    "CDRD64B", "LNWR64B", "IORD64B", "IOWR64B", "MEMRD64B", "MEMWR64B", "RDINV64B", "WRINV64B",
    "CDRD?", "LNWR?", "IORD?", "IOWR?", "MEMRD?", "MEMWR?", "RDINV?", "WRINV?",
    "INT:EOI", "INT:FIXED_LOGL", "INT:FIXED_PHYS", "INT:REDIR_LOGL", "INT:REDIR_PHYS", "INT:RSVD",
    "INTA", "DEFR_RPLY",
    "DEFR_REPLY", "RSVD", "BR_TRACE", "IOWR_RSVD", "(null)", "N4_RSVD", "SPL:Flush", "SPL:Halt",
    "SPL:RSVD", "SPL:SMIAck", "SPL:ShutDwn", "SPL:StClkAk", "SPL:Sync", "SPL:XTPR", "SPL:nop",
    "SPL",
    "VXB64B", "VXBNC64B", "WBMTOE64B", "WBMTOS64B"};
// clang-format on

// By `code >> 3`: a transaction spans 8 << shift bytes.
inline constexpr unsigned char velk_line_shifts[9] = {0, 1, 2, 3, 4, 0, 0, 0, 3};

// Errors and signals

// The kinds of failures.
enum class VQfault {
  misuse,        // an argument out of range, or a call out of order
  cannot_read,   // a read of the input stream failed
  cannot_write,  // a write, flush or seek of the output stream failed
  bad_input,     // the input is no trace, is damaged, or is not whole
  refused        // the file type cannot hold a transaction or a value of the header
};

// A failure, with the place where it was noticed.
struct VQCOMP_EXPORT VQcomp_error {
  const char* msg;   // a string literal, never freed
  long long record;  // 1-based number of the transaction or text line; 0: none applies
  long long byte;    // 0-based offset in the QUBIX input; 0 or less: none applies
  bool closed;       // whether the output has been completed all the same; false when thrown
  VQfault fault = VQfault::bad_input;

  // One line for the user, without a newline: the message, then ", at record R, byte B" with the
  // parts that apply. Empty when `msg` is null.
  std::string str() const;
};

// From VQcomp: the first `bytes` bytes of its buffer are final and must be written now.
// From VQuncomp (`bytes` 0): it needs another chunk of input.
struct VQCOMP_EXPORT VQcomp_block {
  unsigned bytes;
};

// From VQuncomp: the stream has ended, and its checksum and count were good.
struct VQCOMP_EXPORT VQcomp_done {};
