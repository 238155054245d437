// Preloaded into a program, this lets one of its calls fail as on a full disk: the one that the
// variable FAILING_CALL counts to, among those that write, flush or close an output that is not a
// standard stream.
#include <dlfcn.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {

bool fails(FILE* stream) {
  static const char* const call = std::getenv("FAILING_CALL");
  static int left = call ? std::atoi(call) : 0;
  if (!__fwritable(stream) || fileno(stream) <= STDERR_FILENO || --left != 0) return false;
  errno = ENOSPC;
  return true;
}

template <class Function>
Function* original(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" size_t fwrite(const void* from, size_t size, size_t count, FILE* stream) {
  return fails(stream) ? 0 : original(&fwrite, "fwrite")(from, size, count, stream);
}

extern "C" int fflush(FILE* stream) {
  return fails(stream) ? EOF : original(&fflush, "fflush")(stream);
}

extern "C" int fclose(FILE* stream) {
  const bool failed = fails(stream);
  const int closed = original(&fclose, "fclose")(stream);
  return failed ? EOF : closed;
}
