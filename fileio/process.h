// Streams from and to processes, gzip and bzip2 among them. Nothing here is shared between streams.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

// Owns a file descriptor.
class descriptor {
 public:
  descriptor() = default;
  // Moves `fd` above the standard descriptors, which a process that is started replaces.
  explicit descriptor(int fd);
  ~descriptor() { reset(); }
  descriptor(descriptor&& other) noexcept;
  descriptor& operator=(descriptor&&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void reset();

  // Gives the descriptor to a new stream; null, and the descriptor stays here, on failure.
  FILE* make_stream(const char* mode);

 private:
  int fd_ = -1;
};

// A duplicate of a descriptor that somebody else owns.
descriptor duplicate(int fd);

// A stream, whose other end may be a process.
struct process_stream {
  FILE* stream = nullptr;  // null: it could not be opened, as errno says
  pid_t process = 0;       // if any, to be waited for once the stream is closed or read to its end
};

// Waits for a process. Returns the wait status, or -1 if it cannot be had.
int wait_for(pid_t process);

// Runs the program argv[0] with a pipe from its standard output (`reading`) or to its standard
// input; `file`, if open, becomes the other of the two. What a `silent` one prints on its standard
// error is dropped.
process_stream open_pipe(const char* const argv[], bool reading, const descriptor& file,
                         bool silent);

// Runs gzip or bzip2, by its path, to decompress from `file` (`reading`) or to compress into it.
// The errno of one that is not installed is ENOPKG.
process_stream open_compressor(const char* program, bool reading, const descriptor& file,
                               bool silent);

// The path of the program that compresses files of such a name, *.gz or *.bz2; null for others, and
// for a name that consists of the suffix alone.
const char* compressor_of(const std::string& name);
