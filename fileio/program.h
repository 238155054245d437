// What the programs have in common: exit statuses, the process that they run in, its end.
#pragma once

#include <sys/stat.h>

#include <new>

// Exit statuses: main returns one of these.
inline constexpr int success = 0;
inline constexpr int closed_failure = 1;  // the output is well formed and holds what came before
                                          // the fault
inline constexpr int failure = -1;

// Corrects what a program may inherit: closed standard streams, an ignored SIGCHLD. From now on it
// ends with a message and `failure` where memory runs out even for exceptions.
void prepare_process();

// Prints "Out of memory" and returns `failure`.
int report_out_of_memory();

// Runs what main() is to do and returns its exit status.
template <class Work>
int run_program(Work work) {
  try {
    prepare_process();
    return work();
  } catch (const std::bad_alloc&) {
    return report_out_of_memory();
  }
}

// Whether writing the one overwrites the other: whether both are the same regular file.
bool same_file(const struct stat& a, const struct stat& b);
