// Memory of the symbol table, from the accounting allocator. Nothing here throws: what needs memory
// says whether it got it.
#ifndef VORN_SYMBOL_MEMORY_HPP
#define VORN_SYMBOL_MEMORY_HPP

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <type_traits>

#include "vorn_mem.h"

namespace vorn::symbol {

inline void *allocate(std::size_t count, std::size_t size) {
  if (count > UINT_MAX / size) return nullptr;
  unsigned int type = 0;
  return vorn_mallocsubproc(static_cast<unsigned int>(count * size), &type, 0, VORN_MODULE_ID,
                            __func__, __LINE__);
}

inline void release(void *ptr) {
  if (ptr != nullptr) vorn_freesub(ptr, __func__, __LINE__);
}

template <class T> T *create() {
  void *memory = allocate(1, sizeof(T));
  return memory == nullptr ? nullptr : new (memory) T();
}

template <class T> void destroy(T *object) {
  if (object == nullptr) return;
  object->~T();
  release(object);
}

// A growing array.
template <class T> class Buffer {
  static_assert(std::is_trivially_copyable_v<T>);

public:
  Buffer() = default;
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  ~Buffer() { release(data_); }

  // False when memory ran out: nothing is appended then. The values must not be the buffer's own.
  bool append(const T &value) { return append(&value, 1); }
  bool append(const T *values, std::size_t count) {
    if (count == 0) return true;
    if (count > capacity_ - size_ && !grow(count)) return false;
    std::memcpy(data_ + size_, values, count * sizeof(T));
    size_ += count;
    return true;
  }

  // Drops what stands from count on.
  void truncate(std::size_t count) { size_ = std::min(size_, count); }

  // Gives back what was allocated ahead; keeps it where that takes memory that is not there.
  void trim() {
    if (size_ != capacity_) move_to(size_);
  }

  T *data() { return data_; }
  const T *data() const { return data_; }
  std::size_t size() const { return size_; }
  T *begin() { return data_; }
  T *end() { return data_ + size_; }
  const T *begin() const { return data_; }
  const T *end() const { return data_ + size_; }

private:
  bool grow(std::size_t count) { return move_to(std::max(size_ + count, 2 * capacity_)); }

  bool move_to(std::size_t capacity) {
    T *data = nullptr;
    if (capacity != 0) {
      data = static_cast<T *>(allocate(capacity, sizeof(T)));
      if (data == nullptr) return false;
    }
    if (size_ != 0) std::memcpy(data, data_, size_ * sizeof(T));
    release(data_);
    data_ = data;
    capacity_ = capacity;
    return true;
  }

  T *data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

} // namespace vorn::symbol

#endif
