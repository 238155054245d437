// Streams by name: files, compressed files, standard streams and shell commands.
#pragma once

#include <sys/stat.h>

#include <cstdio>
#include <memory>

// Opens `name` in a stdio mode; returns null on failure and prints nothing. The first rule that
// applies decides:
//   |command   a shell command: its output if `mode` holds an "r", else its input
//   command|   the same, for reading only
//   stdout, stderr (mode "w"), stdin ("r")   the standard streams
//   *.gz, *.bz2   the file's bytes pass through gzip or bzip2
//   other      the file. For reading, if it cannot be read: the name with .gz, then .bz2 appended
// Only the command forms reach a shell. Streams of commands and compressors cannot seek; xfclose()
// returns their failures. Close every stream with xfclose().
FILE* xfopen(const char* name, const char* mode);

// The same, but tries no other names.
FILE* xfopen_simple(const char* name, const char* mode);

// What stat() reports about the file that xfopen(name, mode) would open. False if there is no such
// file or the name is a command.
bool xfstat(const char* name, const char* mode, struct stat& status);

// Waits for the process that feeds a stream, which must have been read to its end. Returns the wait
// status, -1 if there is none to be had, and 0 for a stream without a process.
int xfwait(FILE* stream);

// Closes a stream and waits for its process, if it has one. Returns the wait status if that is not
// 0, else EOF if bytes could not be written, else 0.
int xfclose(FILE* stream);

struct file_closer {
  void operator()(FILE* file) const { xfclose(file); }
};

// A stream that is closed with xfclose().
using file_ptr = std::unique_ptr<FILE, file_closer>;
