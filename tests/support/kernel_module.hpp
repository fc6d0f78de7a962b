// Replaces the kernel module: stores the latest request and answers it as the test says.
// A program includes this once, and wraps vorn_private_syscall.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_KERNEL_MODULE_HPP
#define VORN_TESTS_KERNEL_MODULE_HPP

#include <array>
#include <cerrno>
#include <functional>

namespace kernel_module {

using Words = std::array<unsigned long, 5>; // the command and its arguments

static Words asked;        // the latest request
static long answer = -1;   // as without a kernel module
static int error = ENOSYS; // errno after the answer; 0: it stays as it was
static std::function<long(const Words &words)> act = [](const Words &) { return answer; };

// Returns a request of the library; a word that an operation does not use has all bits set.
inline Words request(unsigned int operation, unsigned long a1 = ~0ul, unsigned long a2 = ~0ul,
                     unsigned long a3 = ~0ul) {
  return {381ul << 32 | operation, a1, a2, a3, ~0ul};
}

template <class T> unsigned long word(T *address) {
  return reinterpret_cast<unsigned long>(address);
}
template <class T> T *pointer(unsigned long word) { return reinterpret_cast<T *>(word); }

} // namespace kernel_module

extern "C" long __wrap_vorn_private_syscall(unsigned long command, unsigned long a1,
                                            unsigned long a2, unsigned long a3, unsigned long a4) {
  using namespace kernel_module;
  asked = {command, a1, a2, a3, a4};
  const long result = act(asked);
  if (error != 0) errno = error;
  return result;
}

#endif
