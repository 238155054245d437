// What options change in the header of the input before it becomes the header of the output.
#pragma once

#include <variant>
#include <vector>

#include "coder/vqcomp.h"
#include "fileio/xfopen.h"

// A header field that an -m option sets.
struct metadata_field {
  char letter;  // after -m
  // An unsigned field takes the low 32 bits of the value.
  std::variant<unsigned PRUV_header_t::*, long long PRUV_header_t::*> member;
};

// The field of a letter; null if there is none.
const metadata_field* find_metadata_field(char letter);

struct given_metadata {
  const metadata_field* field;
  unsigned long long value;
};

struct header_edits {
  file_ptr sensitivity;            // file of the data to put into the header; null: leave them
  bool merge_sensitivity = false;  // keep those of the input, too
  bool drop_comment = false;
  std::vector<given_metadata> metadata;  // later ones win
  const char* comment = nullptr;         // to append
};

inline constexpr char unreadable_sensitivity[] = "Can't read sensitivity file (-s/S)";

// Applies the edits and closes the sensitivity file. Throws VQcomp_error for sensitivity data that
// cannot be read or used, with the line of the file, or the number of the input's point, as
// `record`.
void edit_header(PRUV_header_t& header, header_edits& edits);
