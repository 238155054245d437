#include "fileio/xfopen.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "fileio/process.h"

namespace {

// A stream from or to a process.
struct pfile {
  FILE* fp;
  pid_t process;  // 0 once it has been waited for
  int status;     // its wait status from then on
  std::unique_ptr<pfile> next;
};

std::unique_ptr<pfile> pfiles;  // newest first

// The link of `pfiles` that owns the entry of `fp`; the null link at the end if there is none.
std::unique_ptr<pfile>& find_pfile(FILE* fp) {
  std::unique_ptr<pfile>* pfp = &pfiles;
  while (*pfp && (*pfp)->fp != fp) pfp = &(*pfp)->next;
  return *pfp;
}

// A new stream that is already in the list was closed last time without xfclose().
FILE* checked_new(FILE* fp) {
  assert(!find_pfile(fp));
  return fp;
}

// Takes note of the process of the stream that `open` opens.
template <class Open>
FILE* open_noted(Open open) {
  auto entry = std::make_unique<pfile>();
  const process_stream opened = open();
  if (!opened.stream) return nullptr;
  entry->fp = checked_new(opened.stream);
  entry->process = opened.process;
  entry->next = std::move(pfiles);
  pfiles = std::move(entry);
  return pfiles->fp;
}

bool has(const char* mode, char letter) { return std::strchr(mode, letter) != nullptr; }

FILE* open_command(const std::string& command, const char* mode) {
  const char* const argv[] = {"/bin/sh", "-c", "--", command.c_str(), nullptr};
  return open_noted([&] { return open_pipe(argv, has(mode, 'r'), descriptor(), false); });
}

FILE* open_compressed(const char* program, const std::string& name, const char* mode) {
  const bool reading = !has(mode, 'w') && has(mode, 'r');
  int flags = O_RDONLY | O_CLOEXEC;
  if (has(mode, 'w'))
    flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  else if (!reading && has(mode, 'a'))
    flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
  else if (!reading)
    return nullptr;
  const descriptor file(open(name.c_str(), flags, 0666));
  if (!file) return nullptr;
  return open_noted([&] { return open_compressor(program, reading, file, false); });
}

bool is_command(const std::string& name, const char* mode) {
  return name.starts_with('|') || (name.ends_with('|') && has(mode, 'r'));
}

// The standard stream of a name, or null.
FILE* standard_stream(const std::string& name, const char* mode) {
  if (name == "stdout" && has(mode, 'w')) return stdout;
  if (name == "stderr" && has(mode, 'w')) return stderr;
  if (name == "stdin" && has(mode, 'r')) return stdin;
  return nullptr;
}

// The name of the file to read for `name`; empty if there is none.
std::string find_file(const std::string& name) {
  if (compressor_of(name)) return name;
  for (const char* const suffix : {"", ".gz", ".bz2"})
    if (access((name + suffix).c_str(), R_OK) == 0) return name + suffix;
  return {};
}

FILE* _xfopen(const std::string& name, const char* mode, bool try_others) {
  if (is_command(name, mode))
    return name.starts_with('|') ? open_command(name.substr(1), mode)
                                 : open_command(name.substr(0, name.size() - 1), "r");
  if (FILE* const stream = standard_stream(name, mode)) return stream;
  const std::string file = try_others && has(mode, 'r') ? find_file(name) : name;
  if (const char* const program = compressor_of(file)) return open_compressed(program, file, mode);
  return checked_new(std::fopen(file.c_str(), mode));
}

// Waits for the stream's process, if there is one; returns its wait status, 0 if there is none.
int status_of(const std::unique_ptr<pfile>& entry) {
  if (!entry) return 0;
  if (entry->process) entry->status = wait_for(std::exchange(entry->process, 0));
  return entry->status;
}

}  // namespace

FILE* xfopen(const char* name, const char* mode) { return _xfopen(name, mode, true); }

FILE* xfopen_simple(const char* name, const char* mode) { return _xfopen(name, mode, false); }

bool xfstat(const char* name, const char* mode, struct stat& status) {
  if (is_command(name, mode)) return false;
  if (FILE* const stream = standard_stream(name, mode)) return fstat(fileno(stream), &status) == 0;
  const std::string file = has(mode, 'r') ? find_file(name) : name;
  return stat(file.c_str(), &status) == 0;
}

int xfwait(FILE* stream) { return status_of(find_pfile(stream)); }

int xfclose(FILE* stream) {
  std::unique_ptr<pfile>& link = find_pfile(stream);
  const std::unique_ptr<pfile> entry = std::move(link);
  if (entry) link = std::move(entry->next);
  const int closed = std::fclose(stream);
  const int status = status_of(entry);
  return status ? status : closed;
}
