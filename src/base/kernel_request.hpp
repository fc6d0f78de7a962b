// Sends requests to the kernel module: the operation with the library's module id, and each
// argument as a word. Arguments that are not given are marked unused.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_KERNEL_REQUEST_HPP
#define VORN_BASE_KERNEL_REQUEST_HPP

#include <cstdint>
#include <type_traits>

#include "vorn_syscall.h"

namespace vorn {

template <class Argument> unsigned long request_word(Argument argument) {
  if constexpr (std::is_pointer_v<Argument>)
    return reinterpret_cast<unsigned long>(argument);
  else
    return static_cast<unsigned long>(argument);
}

// Returns the call's answer; -1 with errno ENOSYS if there is no kernel module.
template <class... Arguments> long kernel_call(unsigned int operation, Arguments... arguments) {
  static_assert(sizeof...(Arguments) <= 4);
  unsigned long words[] = {VORN_SYSCALL_UNUSED, VORN_SYSCALL_UNUSED, VORN_SYSCALL_UNUSED,
                           VORN_SYSCALL_UNUSED};
  [[maybe_unused]] unsigned long *at = words;
  ((*at++ = request_word(arguments)), ...);
  return vorn_private_syscall(VORN_SYSCALL_COMMAND(operation), words[0], words[1], words[2],
                              words[3]);
}

// Returns the 32 bits of the kernel module's answer.
template <class... Arguments> int kernel_request(unsigned int operation, Arguments... arguments) {
  return static_cast<int>(kernel_call(operation, arguments...));
}

} // namespace vorn

#endif
