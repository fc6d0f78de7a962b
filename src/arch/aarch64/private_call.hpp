// Makes the private call by its number on AArch64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_PRIVATE_CALL_HPP
#define VORN_ARCH_AARCH64_PRIVATE_CALL_HPP

#include <unistd.h>

namespace vorn::arch {

// AArch64 reserves the numbers 244 to 259 and uses none of them; a kernel without the module
// fails with ENOSYS.
inline constexpr long kPrivateCallNumber = 259;

inline long private_call(unsigned long command, unsigned long a1, unsigned long a2,
                         unsigned long a3, unsigned long a4) {
  return syscall(kPrivateCallNumber, command, a1, a2, a3, a4);
}

} // namespace vorn::arch

#endif
