// What readers and writers of the C interface have in common: they fail once, and say why.
#pragma once

#include <exception>
#include <new>
#include <string>
#include <system_error>

#include "c/vqpack.h"
#include "coder/vqcomp.h"

namespace vqpack::detail {

// The code of the interface for a kind of failure.
constexpr int32_t code_of(VQfault fault) {
  switch (fault) {
    case VQfault::misuse:
      return VQPACK_MISUSE;
    case VQfault::cannot_read:
      return VQPACK_CANNOT_READ;
    case VQfault::cannot_write:
      return VQPACK_CANNOT_WRITE;
    case VQfault::refused:
      return VQPACK_REFUSED;
    default:
      return VQPACK_BAD_INPUT;
  }
}

inline constexpr vqpack_error no_failure{VQPACK_OK, 0, 0, 0, "", ""};
inline constexpr vqpack_error out_of_memory{VQPACK_NO_MEMORY, 0, 0, 0, "Out of memory",
                                            "Out of memory"};

// The first failure of an object.
class failure_state {
 public:
  const vqpack_error& error() const { return error_; }
  bool failed() const { return error_.code != VQPACK_OK; }

  // Returns what `work` returns; where it throws, or where something has failed before,
  // `otherwise`. `when_system_fails` is the code for a std::system_error.
  template <class Result, class Work>
  Result attempt(int32_t when_system_fails, Result otherwise, Work work) noexcept {
    if (failed()) return otherwise;
    try {
      return work();
    } catch (const VQcomp_error& error) {
      fail(error);
    } catch (const std::system_error& error) {
      fail(when_system_fails, error.code());
    } catch (const std::exception&) {
      error_ = out_of_memory;  // only memory can run out here
    }
    return otherwise;
  }

 private:
  void fail(const VQcomp_error& error) noexcept {
    error_ = {code_of(error.fault), 0, error.record, error.byte, error.msg, error.msg};
    if (error.fault != VQfault::cannot_read) set_text([&] { return error.str(); });
  }

  void fail(int32_t code, const std::error_code& why) noexcept {
    const bool opening = code == VQPACK_CANNOT_OPEN;
    const char* const message = opening ? "Can't open file" : "Can't write output";
    error_ = {code, why.value(), 0, 0, message, message};
    if (why) set_text([&] { return message + (": " + why.message()); });
  }

  // Where memory runs out, the message alone remains.
  template <class Text>
  void set_text(Text text) noexcept {
    try {
      text_ = text();
      error_.text = text_.c_str();
    } catch (const std::bad_alloc&) {
    }
  }

  vqpack_error error_ = no_failure;
  std::string text_;
};

}  // namespace vqpack::detail
