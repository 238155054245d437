// Files by name, with compression and commands in between.
#pragma once

#include <sys/stat.h>

#include <cstdio>

// Opens `name` in a stdio mode; returns null on failure and prints nothing. The first rule that
// applies decides:
//   |command   a shell command; its output is read when `mode` holds an "r", else its input written
//   command|   for reading only: the same
//   stdout, stderr (mode "w"), stdin ("r")   the standard streams
//   *.gz, *.bz2   the file's bytes pass through gzip or bzip2
//   other      the file. For reading, if it cannot be read: the name with .gz, then .bz2 appended
// Only the command forms reach a shell. Streams of commands and compressors cannot seek; their
// failures show in what xfclose() returns. Close every stream with xfclose().
FILE* xfopen(const char* name, const char* mode);

// The same without trying other names.
FILE* xfopen_simple(const char* name, const char* mode);

// What stat() tells of the file that xfopen(name, mode) would open. False when there is none yet,
// or when the name is a command.
bool xfstat(const char* name, const char* mode, struct stat& status);

// Waits for the process that a stream comes from, once its end has been read. Returns its wait
// status, -1 when there is none to be had, and 0 for any other stream.
int xfwait(FILE* stream);

// Closes a stream. Returns 0 on success; for the stream of a command or compressor, which is waited
// for, its wait status if that is not 0; EOF when bytes could not be written.
int xfclose(FILE* stream);
