#include "fileio/xfopen.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

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

class descriptor {
 public:
  // Moves `fd` above the standard descriptors, which dup2() overwrites in the child.
  explicit descriptor(int fd) : fd_(fd) {
    if (fd_ < 0 || fd_ > STDERR_FILENO) return;
    fd_ = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
  }
  ~descriptor() { reset(); }
  descriptor(const descriptor&) = delete;
  descriptor& operator=(const descriptor&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  void reset() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }

  FILE* make_stream(const char* mode) {
    FILE* const stream = fdopen(fd_, mode);
    if (stream) fd_ = -1;
    return stream;
  }

 private:
  int fd_;
};

// Returns the wait status, -1 on failure.
int wait_for(pid_t process) {
  int status;
  while (waitpid(process, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return status;
}

// Runs the program. `input` and `output`, if open, become its standard streams. Returns its process
// number, 0 on failure.
pid_t spawn(const char* const argv[], const descriptor& input, const descriptor& output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const auto redirect = [&actions](const descriptor& from, int to) {
    return !from || posix_spawn_file_actions_adddup2(&actions, from.get(), to) == 0;
  };
  const bool redirected = redirect(input, STDIN_FILENO) && redirect(output, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int ignored_here : {SIGPIPE, SIGXFSZ}) sigaddset(&defaults, ignored_here);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t process = 0;
  if (!redirected ||
      posix_spawn(&process, argv[0], &actions, &attributes, const_cast<char**>(argv), environ) != 0)
    process = 0;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return process;
}

// Opens a pipe from the program's standard output (`reading`) or to its standard input; `file`, if
// open, becomes the other of the two.
FILE* open_pipe(const char* const argv[], bool reading, const descriptor& file) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return nullptr;
  descriptor read_end(ends[0]), write_end(ends[1]);
  if (!read_end || !write_end) return nullptr;
  auto opened = std::make_unique<pfile>();
  opened->process = reading ? spawn(argv, file, write_end) : spawn(argv, read_end, file);
  if (opened->process == 0) return nullptr;
  descriptor& our_end = reading ? read_end : write_end;
  opened->fp = checked_new(our_end.make_stream(reading ? "r" : "w"));
  if (!opened->fp) {
    our_end.reset();
    wait_for(opened->process);
    return nullptr;
  }
  opened->next = std::move(pfiles);
  pfiles = std::move(opened);
  return pfiles->fp;
}

bool has(const char* mode, char letter) { return std::strchr(mode, letter) != nullptr; }

FILE* open_command(const std::string& command, const char* mode) {
  const char* const argv[] = {"/bin/sh", "-c", "--", command.c_str(), nullptr};
  return open_pipe(argv, has(mode, 'r'), descriptor(-1));
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
  const char* const argv[] = {program, reading ? "-d" : nullptr, nullptr};
  return open_pipe(argv, reading, file);
}

constexpr char gzip[] = "/usr/bin/gzip";
constexpr char bzip2[] = "/usr/bin/bzip2";

bool can_read(const std::string& name) { return access(name.c_str(), R_OK) == 0; }

// A name that consists of the suffix alone is an ordinary name.
bool has_suffix(std::string_view name, std::string_view suffix) {
  return name.size() > suffix.size() && name.ends_with(suffix);
}

bool is_compressed(const std::string& name) {
  return has_suffix(name, ".gz") || has_suffix(name, ".bz2");
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
  if (is_compressed(name)) return name;
  for (const char* const suffix : {"", ".gz", ".bz2"})
    if (can_read(name + suffix)) return name + suffix;
  return {};
}

FILE* _xfopen(const std::string& name, const char* mode, bool try_others) {
  if (is_command(name, mode))
    return name.starts_with('|') ? open_command(name.substr(1), mode)
                                 : open_command(name.substr(0, name.size() - 1), "r");
  if (FILE* const stream = standard_stream(name, mode)) return stream;
  const std::string file = try_others && has(mode, 'r') ? find_file(name) : name;
  if (has_suffix(file, ".gz")) return open_compressed(gzip, file, mode);
  if (has_suffix(file, ".bz2")) return open_compressed(bzip2, file, mode);
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
