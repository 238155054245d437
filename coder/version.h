// The version as text.
#pragma once

#include "vqcomp.h"

namespace vqpack::detail {

#define VQPACK_TEXT(number) #number
#define VQPACK_VERSION(major, minor, patch) \
  VQPACK_TEXT(major) "." VQPACK_TEXT(minor) "." VQPACK_TEXT(patch)

inline constexpr char version_text[] =
    VQPACK_VERSION(VQCOMP_VERSION_MAJOR, VQCOMP_VERSION_MINOR, VQCOMP_VERSION_PATCH);

}  // namespace vqpack::detail
