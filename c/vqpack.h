/* Memory-bus traces as arrays: VELK text and QUBIX files, read and written from C and from every
 * language that calls C.
 *
 * A transaction is four values:
 *   address  in bytes, a multiple of 8; of the types 47 and 48 (deferred replies) a file keeps only
 *            bits 16 to 23;
 *   agent    the number of the bus agent that issued it, 0 to 255 in file types 0 to 3 and 0 to
 *            65535 in types 4 and 5;
 *   count    a number that the user of the trace gives a meaning; only file types 3 and 5 store it,
 *            elsewhere it reads back as 1;
 *   type     a code of 0 to 67, which has a name.
 * Text can hold other addresses and agents, and a file with names of its own other codes; they are
 * read as they are, and refused in writing. velk(5), qubix(5).
 *
 * Installed, this is <vqpack/vqpack.h>, and links with CMake's vqpack::vqpack, from
 * find_package(vqpack), or what `pkg-config --cflags --libs libvqpack` prints. libvqpack.so.0
 * exports what is declared here and nothing else. As long as it has that name, every function,
 * structure and constant stays what it is; new ones may be added. Sizes of structures are those of
 * machines with pointers of 64 bits.
 *
 * Nothing here prints, throws or ends the process. An object keeps the first failure that it meets,
 * and all later calls with it fail, too; it still has to be closed. Where memory runs out, a null
 * pointer can come in place of an object, and every function takes it as an object that has failed.
 * Two threads may use two objects at the same time, but not one. A forked child must not use the
 * objects of its parent.
 *
 * Names that end in .gz or .bz2 are read and written through the programs gzip and bzip2, which
 * never go through a shell. No other name is special. vqpack_finish() and vqpack_reader_close()
 * wait for them to end. In a process that ignores SIGCHLD, or has its children waited for
 * elsewhere, such names fail.
 */
#ifndef VQPACK_H
#define VQPACK_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VQPACK_API __attribute__((visibility("default")))

/* The library's version, as "0.1.0". */
VQPACK_API const char* vqpack_version(void);

/* 24 bytes, those of VQtransaction in C++. */
typedef struct {
  int64_t address; /* negative from 2^63 on */
  int32_t agent;
  uint32_t count;
  uint8_t type;
  uint8_t unused[7]; /* neither read nor written */
} vqpack_transaction;

/* The name of a type, in static storage; null for codes above 67. */
VQPACK_API const char* vqpack_type_name(unsigned type);

/* The code of one of the 68 names; -1 for any other. */
VQPACK_API int vqpack_type_code(const char* name);

/* Failures */

enum {
  VQPACK_OK = 0,
  VQPACK_MISUSE = 1,       /* an argument out of range, or a call out of order */
  VQPACK_CANNOT_OPEN = 2,  /* `system_error` says why */
  VQPACK_CANNOT_READ = 3,  /* a read failed, or the program that decompresses */
  VQPACK_CANNOT_WRITE = 4, /* a write failed, or the program that compresses */
  VQPACK_BAD_INPUT = 5,    /* the input is no trace, is damaged, or is not whole */
  VQPACK_REFUSED = 6,      /* the file type cannot hold a transaction or a value of the metadata */
  VQPACK_NO_MEMORY = 7
};

/* 40 bytes. */
typedef struct {
  int32_t code;         /* one of the above */
  int32_t system_error; /* an errno where a file cannot be opened or written, if known; else 0 */
  int64_t record;       /* 1-based number of the transaction or text line; 0: none applies */
  int64_t byte;         /* 0-based offset in a QUBIX input; 0 or less: none applies */
  const char* message;  /* one line without position or newline; "" while nothing has failed */
  const char* text;     /* the same with the position, as vqpack(1) prints it, or the reason */
} vqpack_error;

/* Metadata */

/* One cache-sensitivity measurement; the first three fields identify it. 28 bytes. */
typedef struct {
  uint32_t config_type; /* 0 to 255 */
  uint32_t mlc_size;    /* 0 to 65535 */
  uint32_t llc_size;
  uint32_t instructions;
  uint32_t cycles;
  uint32_t llc_references;
  uint32_t llc_misses;
} vqpack_sensitivity;

/* What file types 2 to 5 store about a trace. Types 0 and 1 store `transactions` alone, text
 * nothing. Widths are those in the file; types 2 and 3 have totals of 32 bits, no context limit and
 * no comment. 88 bytes. */
typedef struct {
  int32_t file_type;     /* 0 to 5; -1: text, which only a reader can have */
  int32_t context_coded; /* records are context-coded (1, always in type 1) or raw (0) */
  int64_t transactions;  /* -1: not known. To a writer it matters where the output cannot seek: see
                            vqpack_create() */
  int64_t instructions;
  int64_t cycles;
  uint32_t threads; /* 16 bits */
  uint32_t cache_size_kib;
  uint32_t line_size;         /* in bytes; 16 bits */
  uint32_t address_length;    /* significant address bits; a writer puts the true number there */
  uint32_t context_limit;     /* most contexts that coder and decoder keep; 0: no limit */
  uint32_t sensitivity_count; /* 0 to 255 */
  const vqpack_sensitivity* sensitivity;
  const char* comment;           /* null: none */
  const char* const* type_names; /* by code: the 68 names or, in rare files, others; not
                                    looked at in writing */
  uint32_t type_name_count;
  uint32_t reserved; /* 0 */
} vqpack_metadata;

/* Sets everything for a file of this type: context-coded records, except in type 0; a context limit
 * of 16383, as vqpack(1) has it; and zeroes. */
VQPACK_API void vqpack_metadata_init(vqpack_metadata* metadata, int file_type);

/* Reading */

typedef struct vqpack_reader vqpack_reader;

/* Opens a trace of either kind, text or QUBIX. If there is no file of that name, tries it with .gz
 * and then with .bz2 appended. Directories are refused. Close what it returns in any case:
 * vqpack_reader_error() says whether it is open. */
VQPACK_API vqpack_reader* vqpack_open(const char* name);

/* Reads from the present position of a descriptor, which is duplicated and stays the caller's. The
 * position is undefined afterwards. What it holds is not decompressed. */
VQPACK_API vqpack_reader* vqpack_open_descriptor(int descriptor);

/* Delivers the next `size` transactions, or those that are left before the end or a fault. Returns
 * how many; 0 at the end of a good trace, and if `size` is 0; -1 on failure. A fault fails the call
 * after the one that has delivered the last transaction before it, whose error already says so. */
VQPACK_API int64_t vqpack_read(vqpack_reader* reader, vqpack_transaction* transactions,
                               size_t size);

/* What the input says of itself; null if it could not be opened. Belongs to the reader, with its
 * strings and lists. */
VQPACK_API const vqpack_metadata* vqpack_reader_metadata(vqpack_reader* reader);

/* The state of the reader, which owns it. */
VQPACK_API const vqpack_error* vqpack_reader_error(const vqpack_reader* reader);

/* Frees the reader. */
VQPACK_API void vqpack_reader_close(vqpack_reader* reader);

/* Writing */

typedef struct vqpack_writer vqpack_writer;

/* The usual window: an address is coded against the latest one of a context if it lies less than so
 * many bytes away. */
#define VQPACK_WINDOW 65535

/* Writes a file. It has another name in the same directory until vqpack_finish() gives it its own;
 * whatever has that name stays as it is until then, and for good if something fails. Symbolic links
 * are followed; devices and named pipes are written in place. Close what it returns in any case:
 * vqpack_writer_error() says whether it is open.
 *
 * `metadata` and what it points at are copied. The number of transactions stands at the start of a
 * file but is known only at its end: where the output can seek, vqpack_finish() puts it there, with
 * the address length. Elsewhere (.gz, .bz2, pipes) types 0 and 1 carry it at the end, and types 2
 * to 5 keep the number in `metadata`. Readers fail at the end of a file that holds another number
 * than it says, but take 0, which -1 becomes, for any. `window` may be any number; with less than
 * 8, no context is ever found again. */
VQPACK_API vqpack_writer* vqpack_create(const char* name, const vqpack_metadata* metadata,
                                        int64_t window);

/* The same for a descriptor, which is duplicated and stays the caller's. What has been written is
 * not taken back. */
VQPACK_API vqpack_writer* vqpack_create_descriptor(int descriptor, const vqpack_metadata* metadata,
                                                   int64_t window);

/* Writes `size` transactions. Returns 0, or -1 on failure: a transaction that the file type cannot
 * hold is the error's `record`, and only those before it have been taken. */
VQPACK_API int vqpack_write(vqpack_writer* writer, const vqpack_transaction* transactions,
                            size_t size);

/* What the start of a file says of its transactions. */
enum {
  VQPACK_TOTALS_IN_PLACE = 0, /* the true number */
  VQPACK_TOTALS_AT_END = 1,   /* types 0 and 1: it stands at the end, where readers look, too */
  VQPACK_TOTALS_DIFFER = 2,   /* types 2 to 5: another number. If that is not 0, readers fail */
  VQPACK_ADDRESS_LENGTH_DIFFERS = 3 /* types 2 to 5: the true number, and another address length */
};

/* 24 bytes. */
typedef struct {
  int64_t transactions;
  uint32_t contexts;         /* in use at the end; 0 for raw records */
  uint32_t average_distance; /* mean position at which contexts were found */
  uint32_t address_length;   /* bits of the largest address below 2^63, at least 8 */
  int32_t totals;            /* one of the above */
} vqpack_summary;

/* Completes the file, closes it, and gives it its name. `summary` may be null. Returns 0, or -1 on
 * failure. All later calls but vqpack_writer_close() fail. */
VQPACK_API int vqpack_finish(vqpack_writer* writer, vqpack_summary* summary);

/* The state of the writer, which owns it. */
VQPACK_API const vqpack_error* vqpack_writer_error(const vqpack_writer* writer);

/* Frees the writer. A file that has not been finished is removed. */
VQPACK_API void vqpack_writer_close(vqpack_writer* writer);

#ifdef __cplusplus
}
#endif

#endif
