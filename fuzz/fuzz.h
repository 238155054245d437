// What the fuzz targets share. Each target is a function of some bytes that returns when all is
// well and ends the program when it is not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tests/support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

// Takes choices off the front of the input; they are 0 past its end.
class fuzz_input {
 public:
  fuzz_input(const std::uint8_t* data, std::size_t size) : at_(data), end_(data + size) {}

  bool empty() const { return at_ == end_; }
  unsigned byte() { return empty() ? 0 : *at_++; }
  unsigned long long number(int size) {
    unsigned long long value = 0;
    for (; size > 0; --size) value = value << 8 | byte();
    return value;
  }
  bytes rest() const { return bytes(at_, end_); }

 private:
  const std::uint8_t* at_;
  const std::uint8_t* end_;
};
