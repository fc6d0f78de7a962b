// Defines a growing array in memory of the accounting allocator. It does not throw or log:
// functions that need memory return whether they got it. vorn_symbol_init logs for them, after it
// has released the loader's lock.
// SPDX-License-Identifier: Apache-2.0
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

  // Returns false, and appends nothing, if memory runs out. The values must not be in this buffer.
  bool append(const T &value) { return append(&value, 1); }
  bool append(const T *values, std::size_t count) {
    if (count == 0) return true;
    if (count > capacity_ - size_ && !grow(count)) return false;
    std::memcpy(end(), values, count * sizeof(T));
    size_ += count;
    return true;
  }

  // Drops the elements from count on.
  void truncate(std::size_t count) { size_ = std::min(size_, count); }

  // Frees the unused memory, unless memory for that runs out.
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

  mem::Owned<T> data_; // points to the first element
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

} // namespace vorn::symbol

#endif
