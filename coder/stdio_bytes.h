// Bytes from and to streams in spite of signals.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdio>

namespace vqpack::detail {

// As std::fread() of bytes, but a signal that interrupts a read does not end it. Fewer than `size`
// bytes are the end of the stream or, where std::ferror(file) holds, a failed read.
inline std::size_t read_bytes(FILE* file, void* to, std::size_t size) {
  std::size_t got = 0;
  for (;;) {
    got += std::fread(static_cast<char*>(to) + got, 1, size - got, file);
    if (got == size || !std::ferror(file) || errno != EINTR) return got;
    std::clearerr(file);
  }
}

// As std::fwrite() of bytes to a stream without a buffer, but a signal that interrupts a write does
// not end it. Whether all were written.
inline bool write_bytes(FILE* file, const void* from, std::size_t size) {
  std::size_t put = 0;
  for (;;) {
    put += std::fwrite(static_cast<const char*>(from) + put, 1, size - put, file);
    if (put == size) return true;
    if (errno != EINTR) return false;
    std::clearerr(file);
  }
}

}  // namespace vqpack::detail
