// What traces of other tools consist of: accesses to memory.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vqtrace {

enum class access_kind : std::uint8_t { fetch, load, store, modify };

// One access to `size` bytes, 1 or more, at a byte address. `time` never decreases within an input.
struct memory_access {
  std::uint64_t address;
  std::uint64_t time;
  std::uint32_t size;
  access_kind kind;
};

// A size in bytes for an access; one that is too large for it stays too large.
constexpr std::uint32_t narrow_size(std::uint64_t size) {
  constexpr std::uint64_t most = 0xFFFFFFFF;
  return std::uint32_t(size < most ? size : most);
}

// A line or record that fits no rule of its format, or whose time is before that of another.
struct bad_record {
  std::uint64_t number;  // 1-based
  bool goes_back = false;
};

// Reads accesses from a stream, which is not owned.
class access_reader {
 public:
  virtual ~access_reader() = default;

  // Reads up to `size` accesses, where `size` is at least `most`; returns how many, 0 at the end
  // only, or where a read fails. Throws `bad_record` once all accesses before it have been
  // delivered.
  virtual std::size_t read(memory_access* accesses, std::size_t size) = 0;

  // Records left out since they fit no rule.
  virtual std::uint64_t skipped() const = 0;

  static constexpr std::size_t most = 8;  // accesses of one line or record
};

// Lays out accesses as another tool reads them.
class access_writer {
 public:
  virtual ~access_writer() = default;

  // Writes an access at `to`, up to `longest` bytes; returns the position after it.
  virtual char* put(char* to, const memory_access& one) = 0;
  // Writes what is left once there are no more.
  virtual char* finish(char* to) { return to; }
  // Accesses left out since the format has no place for them.
  virtual std::uint64_t left_out() const { return 0; }

  static constexpr std::size_t longest = 128;
};

}  // namespace vqtrace
