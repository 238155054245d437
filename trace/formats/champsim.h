// ChampSim's traces of instructions.
#pragma once

#include <algorithm>
#include <cstring>
#include <memory>

#include "coder/bytes.h"
#include "coder/stdio_bytes.h"
#include "trace/access.h"

namespace vqtrace {

// One record an instruction, of 64 bytes with numbers of 64 bits, the least significant byte first:
// at 0 the address of the instruction, at 16 those of two stores, at 32 those of four loads; 0 is
// none. What is between, branches and registers, does not matter. There are no sizes: each access
// counts as one byte. The time of an access is its number.
struct champsim {
  static constexpr std::size_t size = 64, stores = 16, loads = 32;
  static constexpr std::size_t store_count = 2, load_count = 4;
};

class champsim_reader final : public access_reader {
 public:
  explicit champsim_reader(FILE* file) : file_(file), records_(new unsigned char[block]) {}

  std::size_t read(memory_access* accesses, std::size_t size) override {
    memory_access* at = accesses;
    const memory_access* const last = accesses + (size - most);
    while (at <= last && next()) at = put(at);
    if (at == accesses && left_ > 0) throw bad_record{number_ + 1};  // it is cut off
    return std::size_t(at - accesses);
  }

  std::uint64_t skipped() const override { return 0; }

 private:
  static constexpr std::size_t block = 256 * champsim::size;

  // Moves to the next record. False where there is no whole one.
  bool next() {
    if (left_ < champsim::size) {
      std::memmove(records_.get(), at_, left_);
      at_ = records_.get();
      left_ += vqpack::detail::read_bytes(file_, records_.get() + left_, block - left_);
    }
    return left_ >= champsim::size;
  }

  // Takes the record, loads before stores.
  memory_access* put(memory_access* to) {
    const unsigned char* const record = at_;
    to = put_one(to, access_kind::fetch, record);
    for (std::size_t i = 0; i < champsim::load_count; ++i)
      to = put_one(to, access_kind::load, record + champsim::loads + 8 * i);
    for (std::size_t i = 0; i < champsim::store_count; ++i)
      to = put_one(to, access_kind::store, record + champsim::stores + 8 * i);
    at_ += champsim::size;
    left_ -= champsim::size;
    ++number_;
    return to;
  }

  memory_access* put_one(memory_access* to, access_kind kind, const unsigned char* field) {
    const std::uint64_t address = vqpack::detail::load_le<8>(field);
    if (address == 0) return to;
    *to = {address, ++time_, 1, kind};
    return to + 1;
  }

  FILE* file_;
  std::unique_ptr<unsigned char[]> records_;
  const unsigned char* at_ = records_.get();
  std::size_t left_ = 0;      // bytes from there on
  std::uint64_t number_ = 0;  // of records taken
  std::uint64_t time_ = 0;
};

// Makes each access an instruction of its own: a fetch one without operands, a load or store one
// without an address. Address 0 has no place.
class champsim_writer final : public access_writer {
 public:
  char* put(char* to, const memory_access& one) override {
    if (one.address == 0) {
      ++left_out_;
      return to;
    }
    auto* const record = reinterpret_cast<unsigned char*>(to);
    std::fill_n(record, champsim::size, 0);
    const std::size_t place = one.kind == access_kind::fetch  ? 0
                              : one.kind == access_kind::load ? champsim::loads
                                                              : champsim::stores;
    vqpack::detail::store_le<8>(record + place, one.address);
    return to + champsim::size;
  }

  std::uint64_t left_out() const override { return left_out_; }

 private:
  std::uint64_t left_out_ = 0;
};

}  // namespace vqtrace
