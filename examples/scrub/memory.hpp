// Defines standard containers whose memory comes from the library's accounting allocator and is
// charged to the service's module id.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MEMORY_HPP
#define SCRUB_MEMORY_HPP

#include <climits>
#include <cstddef>
#include <new>
#include <string>
#include <string_view>
#include <vector>

#include "vorn_mem.h"

namespace scrub {

// Row 900 of the node's module table.
inline constexpr unsigned int kModule = 900;

template <class T> struct Allocator {
  using value_type = T;
  static_assert(alignof(T) <= 16, "vorn_malloc aligns to 16 bytes");

  Allocator() = default;
  template <class U> Allocator(const Allocator<U> &) {}

  T *allocate(std::size_t count) {
    if (count > UINT_MAX / sizeof(T)) throw std::bad_alloc();
    void *block = vorn_malloc(kModule, static_cast<unsigned int>(count * sizeof(T)));
    if (block == nullptr) throw std::bad_alloc();
    return static_cast<T *>(block);
  }
  void deallocate(T *block, std::size_t) { vorn_free(block); }

  bool operator==(const Allocator &) const = default;
};

using String = std::basic_string<char, std::char_traits<char>, Allocator<char>>;
template <class T> using Vector = std::vector<T, Allocator<T>>;

} // namespace scrub

#endif
