// A request to the kernel module that is passed on and answered as it is.
#ifndef VORN_SYSCALL_REQUEST_HPP
#define VORN_SYSCALL_REQUEST_HPP

#include "vorn_syscall.h"

namespace vorn::syscall {

// The kernel module answers in 32 bits.
inline int request(unsigned int operation, unsigned long argument1, unsigned long argument2) {
  return static_cast<int>(vorn_private_syscall(VORN_SYSCALL_COMMAND(operation), argument1,
                                               argument2, VORN_SYSCALL_UNUSED,
                                               VORN_SYSCALL_UNUSED));
}

} // namespace vorn::syscall

#endif
