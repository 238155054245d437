// An array that grows cheaply.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

namespace vqpack::detail {

// For elements that may be moved byte by byte. A vector that grows copies them to fresh memory, and
// the first touch of a page there costs more than the list's whole work on the contexts in it.
// realloc() moves the pages of a large array where the system can, and touches none.
template <class T>
class growing_array {
  static_assert(std::is_trivially_copyable_v<T>);

 public:
  std::size_t size() const { return size_; }
  T& operator[](std::size_t i) { return elements_.get()[i]; }
  const T& operator[](std::size_t i) const { return elements_.get()[i]; }

  // Elements may move, and new ones have no value yet. Throws std::bad_alloc, and changes nothing.
  void resize(std::size_t size) {
    if (size > capacity_) grow(std::max(size, 2 * capacity_));
    size_ = size;
  }

 private:
  struct free_elements {
    void operator()(T* elements) const { std::free(elements); }
  };

  [[gnu::noinline]] void grow(std::size_t capacity) {
    if (capacity > SIZE_MAX / sizeof(T)) throw std::bad_alloc();
    void* const grown = std::realloc(elements_.get(), capacity * sizeof(T));
    if (!grown) throw std::bad_alloc();
    static_cast<void>(elements_.release());  // realloc() has freed them
    elements_.reset(static_cast<T*>(grown));
    capacity_ = capacity;
  }

  std::unique_ptr<T, free_elements> elements_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace vqpack::detail
