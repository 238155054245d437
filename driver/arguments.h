// The command line: what it asks for, and how it is refused.
#pragma once

#include <string>

#include "driver/metadata.h"

// How the options ask for transactions to be coded.
enum class compression_choice { raw, context, unspecified };

// What the command line asks for.
struct run_settings {
  const char* infile = nullptr;   // "-" or null: standard input
  const char* outfile = nullptr;  // null: standard output
  int version = -1;               // file type of the output; -1: not given
  compression_choice compression = compression_choice::unspecified;
  unsigned long long begin = 0;  // of the transactions to convert, 0-based
  unsigned long long end = 0x3FFFFFFF80000000;
  unsigned window = 65535;  // bytes
  unsigned max_contexts = 16383;
  bool quiet = false;
  bool show_metadata = false;
  header_edits edits;

  bool from_stdin() const;
  // Whether `version` is given and has a PRUV header.
  bool stores_header() const;
  // The value of the header's `compression`; -1 if `version` does not allow the choice.
  int compression_flag() const;
};

// Thrown where the run cannot go on as the command line asks.
struct refusal {
  std::string message;
};

// Thrown where the command line asks for the help.
struct help_request {};

// Takes the arguments from left to right and opens the sensitivity file. Throws `refusal` at the
// first fault, `help_request` at the first -h.
void scan_arguments(int argc, char** argv, run_settings& run);
