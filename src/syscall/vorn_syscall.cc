// Makes private calls to the kernel module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_syscall.h"

#include "arch/private_call.hpp"

long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                          unsigned long a3, unsigned long a4) {
  return vorn::arch::private_call(command, a1, a2, a3, a4);
}
