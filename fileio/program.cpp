#include "fileio/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <exception>
#include <iostream>

namespace {

// A file must not be opened as a standard stream that was closed: messages would go into an output.
// What takes the place of such a stream fails like a closed descriptor.
void occupy_standard_streams() {
  for (const int place : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (fcntl(place, F_GETFD) == -1)
      static_cast<void>(open("/dev/null", place == STDIN_FILENO ? O_WRONLY : O_RDONLY));
}

// The runtime reserves some memory for exceptions. Where that, too, is used up, it terminates
// without an exception.
[[noreturn]] void end_without_exception() {
  if (std::current_exception()) std::abort();
  std::_Exit(report_out_of_memory());
}

}  // namespace

void prepare_process() {
  std::set_terminate(end_without_exception);
  std::ios::sync_with_stdio(false);  // messages outlive an output that is named stderr
  occupy_standard_streams();
  std::signal(SIGCHLD, SIG_DFL);  // if ignored, the statuses of children are lost
}

int report_out_of_memory() {
  constexpr char message[] = "Out of memory\n";
  static_cast<void>(!write(STDERR_FILENO, message, sizeof message - 1));
  return failure;
}

bool same_file(const struct stat& a, const struct stat& b) {
  return S_ISREG(a.st_mode) && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}
