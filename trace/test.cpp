// vqtrace test: whether traces are whole.
#include <cstdio>
#include <iostream>
#include <iterator>

#include "fileio/program.h"
#include "trace/command_error.h"
#include "trace/commands.h"
#include "trace/input.h"

namespace vqtrace {

namespace {

// The line to print for a file; what is wrong with it, or that nothing is.
struct verdict {
  bool is_whole;
  std::string text;
};

verdict test(const std::string& name, bool watched) {
  try {
    input trace(name, watched);
    try {
      VQtransaction transactions[256];
      while (trace.read(transactions, std::size(transactions)) > 0) continue;
    } catch (const VQcomp_error& error) {
      return {false, trace.describe(error)};
    }
    return {true, name + ": ok"};
  } catch (const command_error& failed) {
    return {false, failed.what()};
  }
}

}  // namespace

int run_test(const test_settings& settings) {
  // What a decompressor says, for example.
  if (settings.quiet) static_cast<void>(!std::freopen("/dev/null", "w", stderr));
  int status = success;
  for (const std::string& name : settings.files) {
    const verdict found = test(name, !settings.quiet);
    if (!found.is_whole) status = closed_failure;
    if (!settings.quiet) std::cout << found.text << '\n' << std::flush;
  }
  return status;
}

}  // namespace vqtrace
