// Files that take their names once they are whole.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>

#include "fileio/process.h"

// A file to be written. Until commit() it has another name in the same folder; whatever had the
// name that it is for stays as it was if something fails. It gets the permissions of that file, not
// its owner or its other links. Symbolic links are followed, and what is no regular file, such as a
// device or a named pipe, is written in place. Files for *.gz and *.bz2 are compressed. The stream
// has no buffer.
class new_file {
 public:
  // Throws std::system_error if the file cannot be written.
  explicit new_file(const std::string& name);
  // Takes a descriptor; no name changes hands then.
  explicit new_file(descriptor fd);
  // Drops the file unless it has been committed; but a process forked since leaves it alone.
  ~new_file();
  new_file(const new_file&) = delete;
  new_file& operator=(const new_file&) = delete;

  FILE* stream() const { return stream_; }
  // The path of the file until commit(); empty if it is written in place.
  const std::string& temporary_name() const { return temporary_; }

  // Closes the file and gives it its name. Throws std::system_error if not all of it was written.
  void commit();

 private:
  void open(descriptor fd, const char* compressor);
  void open_beside(const char* compressor);

  std::string name_;
  std::string temporary_;  // empty: written in place
  FILE* stream_ = nullptr;
  pid_t process_ = 0;
  pid_t owner_;
};
