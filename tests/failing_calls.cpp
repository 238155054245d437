// Preloaded into vqpack, this lets some of its calls fail. The variable FAILING_CALL counts to the
// one that fails as on a full disk, among those that write, flush or close an output that is not a
// standard stream; FAILING_ALLOCATION to the one that finds no memory and, with ALL_ALLOCATIONS
// set, neither do those after it. With FAILING_SPAWN set no process can start.
#include <dlfcn.h>
#include <spawn.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

int counted_by(const char* variable) {
  const char* const number = std::getenv(variable);
  return number && std::strcmp(program_invocation_short_name, "vqpack") == 0 ? std::atoi(number)
                                                                             : 0;
}

bool fails(FILE* stream) {
  static int left = counted_by("FAILING_CALL");
  if (!__fwritable(stream) || fileno(stream) <= STDERR_FILENO || --left != 0) return false;
  errno = ENOSPC;
  return true;
}

template <class Function>
Function* original(Function*, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

[[maybe_unused]] bool finds_no_memory() {
  static int left = counted_by("FAILING_ALLOCATION");
  static const bool goes_on = std::getenv("ALL_ALLOCATIONS") != nullptr;
  if (left == 0 || (left != 1 && --left != 1)) return false;
  if (!goes_on) left = 0;
  errno = ENOMEM;
  return true;
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

extern "C" int posix_spawn(pid_t* process, const char* path,
                           const posix_spawn_file_actions_t* actions,
                           const posix_spawnattr_t* attributes, char* const argv[],
                           char* const envp[]) {
  if (counted_by("FAILING_SPAWN")) return EAGAIN;
  return original(&posix_spawn, "posix_spawn")(process, path, actions, attributes, argv, envp);
}

#ifndef SANITIZED  // a sanitizer has allocations of its own

// What the C library calls them inside.
extern "C" {
void* plain_malloc(size_t size) asm("__libc_malloc");
void* plain_calloc(size_t count, size_t size) asm("__libc_calloc");
void* plain_realloc(void* block, size_t size) asm("__libc_realloc");
void* plain_memalign(size_t alignment, size_t size) asm("__libc_memalign");

void* malloc(size_t size) { return finds_no_memory() ? nullptr : plain_malloc(size); }
void* calloc(size_t count, size_t size) {
  return finds_no_memory() ? nullptr : plain_calloc(count, size);
}
void* realloc(void* block, size_t size) {
  return finds_no_memory() ? nullptr : plain_realloc(block, size);
}
void* aligned_alloc(size_t alignment, size_t size) {
  return finds_no_memory() ? nullptr : plain_memalign(alignment, size);
}
}

#endif
