// Accesses words of C structures atomically: their headers cannot name std::atomic.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_ATOMIC_WORD_HPP
#define VORN_BASE_ATOMIC_WORD_HPP

#include <atomic>

namespace vorn {

template <class T> std::atomic_ref<T> atomic_word(T &word) { return std::atomic_ref<T>(word); }

// Allows only loads: std::atomic_ref takes no constant word.
template <class T> std::atomic_ref<T> atomic_word(const T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}

// For a word that C code reads and writes as volatile.
template <class T> std::atomic_ref<T> atomic_word(volatile T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}
template <class T> std::atomic_ref<T> atomic_word(const volatile T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}

} // namespace vorn

#endif
