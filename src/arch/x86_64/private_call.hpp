// Makes the private call fail on x86-64, which has none.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_PRIVATE_CALL_HPP
#define VORN_ARCH_X86_64_PRIVATE_CALL_HPP

#include <cerrno>

namespace vorn::arch {

// Number 259 is mknodat(2) on x86-64, so there is no private call.
inline long private_call(unsigned long, unsigned long, unsigned long, unsigned long,
                         unsigned long) {
  errno = ENOSYS;
  return -1;
}

} // namespace vorn::arch

#endif
