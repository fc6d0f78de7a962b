// Owns the blocks that the library itself takes from the accounting allocator.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_MEM_OWNED_HPP
#define VORN_MEM_OWNED_HPP

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>

#include "vorn_mem.h"

namespace vorn::mem {

// Returns NULL if memory runs out, and logs an error in the name of function; logs nothing if the
// size is beyond the allocator's counters.
inline void *allocate(std::size_t size, const char *function = __builtin_FUNCTION(),
                      unsigned int line = __builtin_LINE()) {
  if (size > UINT32_MAX) return nullptr;
  return vorn_mallocsubstandard(VORN_MODULE_ID, static_cast<unsigned int>(size), 0, function, line);
}

// The same without a message, for a caller that logs its own.
inline void *allocate_quietly(std::size_t size, const char *function = __builtin_FUNCTION(),
                              unsigned int line = __builtin_LINE()) {
  if (size > UINT32_MAX) return nullptr;
  unsigned int type = 0;
  return vorn_mallocsubproc(static_cast<unsigned int>(size), &type, 0, VORN_MODULE_ID, function,
                            line);
}

struct Release {
  template <class T> void operator()(T *object) const {
    object->~T();
    vorn_free(object);
  }
};

// Owns an object, a text or a buffer.
template <class T> using Owned = std::unique_ptr<T, Release>;
using Block = Owned<char>;

inline Block allocate_block(std::size_t size, const char *function = __builtin_FUNCTION(),
                            unsigned int line = __builtin_LINE()) {
  return Block(static_cast<char *>(allocate(size, function, line)));
}

template <class T>
Owned<T> create(const char *function = __builtin_FUNCTION(), unsigned int line = __builtin_LINE()) {
  void *memory = allocate(sizeof(T), function, line);
  return Owned<T>(memory == nullptr ? nullptr : new (memory) T());
}

template <class T> Owned<T> create_quietly(const char *function = __builtin_FUNCTION(),
                                           unsigned int line = __builtin_LINE()) {
  void *memory = allocate_quietly(sizeof(T), function, line);
  return Owned<T>(memory == nullptr ? nullptr : new (memory) T());
}

} // namespace vorn::mem

#endif
