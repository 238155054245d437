#include "fileio/process.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string_view>
#include <utility>

descriptor::descriptor(int fd) : fd_(fd) {
  if (fd_ < 0 || fd_ > STDERR_FILENO) return;
  fd_ = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fd);
}

descriptor::descriptor(descriptor&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}

void descriptor::reset() {
  if (fd_ >= 0) close(std::exchange(fd_, -1));
}

FILE* descriptor::make_stream(const char* mode) {
  FILE* const stream = fd_ < 0 ? nullptr : fdopen(fd_, mode);
  if (stream) fd_ = -1;
  return stream;
}

descriptor duplicate(int fd) { return descriptor(fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)); }

int wait_for(pid_t process) {
  int status;
  while (waitpid(process, &status, 0) < 0)
    if (errno != EINTR) return -1;
  return status;
}

namespace {

// Runs the program. `input` and `output`, if open, become its standard streams. Returns its process
// number, 0 on failure, and then sets errno.
pid_t spawn(const char* const argv[], const descriptor& input, const descriptor& output,
            bool silent) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  const auto redirect = [&actions](const descriptor& from, int to) {
    return !from || posix_spawn_file_actions_adddup2(&actions, from.get(), to) == 0;
  };
  const bool silenced = !silent || posix_spawn_file_actions_addopen(&actions, STDERR_FILENO,
                                                                    "/dev/null", O_WRONLY, 0) == 0;
  const bool redirected =
      silenced && redirect(input, STDIN_FILENO) && redirect(output, STDOUT_FILENO);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (const int ignored_here : {SIGPIPE, SIGXFSZ}) sigaddset(&defaults, ignored_here);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
  pid_t process = 0;
  const int failure = redirected ? posix_spawn(&process, argv[0], &actions, &attributes,
                                               const_cast<char**>(argv), environ)
                                 : ENOMEM;
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  errno = failure;
  return failure ? 0 : process;
}

}  // namespace

process_stream open_pipe(const char* const argv[], bool reading, const descriptor& file,
                         bool silent) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return {};
  descriptor read_end(ends[0]), write_end(ends[1]);
  if (!read_end || !write_end) return {};
  const pid_t process =
      reading ? spawn(argv, file, write_end, silent) : spawn(argv, read_end, file, silent);
  if (process == 0) return {};
  descriptor& our_end = reading ? read_end : write_end;
  FILE* const stream = our_end.make_stream(reading ? "r" : "w");
  if (stream) return {stream, process};
  const int why = errno;
  our_end.reset();
  wait_for(process);
  errno = why;
  return {};
}

process_stream open_compressor(const char* program, bool reading, const descriptor& file,
                               bool silent) {
  const char* const argv[] = {program, reading ? "-d" : nullptr, nullptr};
  const process_stream opened = open_pipe(argv, reading, file, silent);
  if (!opened.stream && errno == ENOENT) errno = ENOPKG;
  return opened;
}

namespace {

bool has_suffix(std::string_view name, std::string_view suffix) {
  return name.size() > suffix.size() && name.ends_with(suffix);
}

}  // namespace

const char* compressor_of(const std::string& name) {
  if (has_suffix(name, ".gz")) return "/usr/bin/gzip";
  if (has_suffix(name, ".bz2")) return "/usr/bin/bzip2";
  return nullptr;
}
