// A growing array in memory of the accounting allocator. Nothing here throws or logs: what needs
// memory says whether it got it. vorn_symbol_init has the message, and part of what it does is done
// while the loader's lock is held, where a logging library is better not called.
#ifndef VORN_SYMBOL_MEMORY_HPP
#define VORN_SYMBOL_MEMORY_HPP

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>

#include "mem/owned.hpp"

namespace vorn::symbol {

template <class T> class Buffer {
  static_assert(std::is_trivially_copyable_v<T>);

public:
  Buffer() = default;
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;

  // False when memory ran out: nothing is appended then. The values must not be the buffer's own.
  bool append(const T &value) { return append(&value, 1); }
  bool append(const T *values, std::size_t count) {
    if (count == 0) return true;
    if (count > capacity_ - size_ && !grow(count)) return false;
    std::memcpy(end(), values, count * sizeof(T));
    size_ += count;
    return true;
  }

  // Drops what stands from count on.
  void truncate(std::size_t count) { size_ = std::min(size_, count); }

  // Gives back what was allocated ahead; keeps it where that takes memory that is not there.
  void trim() {
    if (size_ != capacity_) move_to(size_);
  }

  T *data() { return data_.get(); }
  const T *data() const { return data_.get(); }
  std::size_t size() const { return size_; }
  T *begin() { return data(); }
  T *end() { return data() + size_; }
  const T *begin() const { return data(); }
  const T *end() const { return data() + size_; }

private:
  bool grow(std::size_t count) { return move_to(std::max(size_ + count, 2 * capacity_)); }

  bool move_to(std::size_t capacity) {
    if (capacity > UINT32_MAX / sizeof(T)) return false;
    mem::Owned<T> moved;
    if (capacity != 0) {
      moved.reset(static_cast<T *>(mem::allocate_quietly(capacity * sizeof(T))));
      if (moved == nullptr) return false;
    }
    if (size_ != 0) std::memcpy(moved.get(), data(), size_ * sizeof(T));
    data_ = std::move(moved);
    capacity_ = capacity;
    return true;
  }

  mem::Owned<T> data_; // the first of the elements
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

} // namespace vorn::symbol

#endif
