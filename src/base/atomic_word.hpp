// The one atomic form for words of C structures, whose headers cannot name std::atomic.
#ifndef VORN_BASE_ATOMIC_WORD_HPP
#define VORN_BASE_ATOMIC_WORD_HPP

#include <atomic>

namespace vorn {

template <class T> std::atomic_ref<T> atomic_word(T &word) { return std::atomic_ref<T>(word); }

// For loads alone: the standard's reference takes no constant word.
template <class T> std::atomic_ref<T> atomic_word(const T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}

// Of a word that C code reads and writes as a volatile one.
template <class T> std::atomic_ref<T> atomic_word(volatile T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}
template <class T> std::atomic_ref<T> atomic_word(const volatile T &word) {
  return std::atomic_ref<T>(const_cast<T &>(word));
}

} // namespace vorn

#endif
