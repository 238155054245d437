// How the coder fails.
#pragma once

#include "vqtypes.h"

namespace vqpack::detail {

// Messages of several places.
inline constexpr char cannot_read[] = "Can't read input";
inline constexpr char cannot_write[] = "Can't write output";
inline constexpr char ends_early[] = "QUBIX file ends prematurely";
inline constexpr char header_required[] = "Versions 2 and higher require PRUV header";

[[noreturn]] inline void fail(VQfault fault, const char* msg, long long record = 0,
                              long long byte = 0) {
  throw VQcomp_error{msg, record, byte, false, fault};
}

}  // namespace vqpack::detail
