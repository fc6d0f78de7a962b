// Passes requests for the console to the kernel module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_tty.h"

#include "base/kernel_request.hpp"

int vorn_start_agettyquery(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_START_AGETTY_QUERY, argument1, argument2);
}

int vorn_stop_agettyquery(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_STOP_AGETTY_QUERY, argument1, argument2);
}

int vorn_tty_printon(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_TTY_PRINT_ON, argument1, argument2);
}

int vorn_tty_printoff(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_TTY_PRINT_OFF, argument1, argument2);
}
