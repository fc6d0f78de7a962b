// Requests dumps of stacks from the kernel module.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_thread_dump.h"

#include "base/kernel_request.hpp"

int vorn_thread_dump_thread_stack(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_DUMP_THREAD_STACK, argument1, argument2);
}

int vorn_thrd_dump_thread_stack_if_not_running(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_DUMP_STACK_IF_NOT_RUNNING, argument1, argument2);
}

int vorn_thrd_dump_cpu_stack(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_DUMP_CPU_STACK, argument1, argument2);
}

int vorn_thrd_dump_cpu_stack_knl(unsigned long argument1, unsigned long argument2) {
  return vorn::kernel_request(VORN_SYSCALL_DUMP_CPU_STACK_KERNEL, argument1, argument2);
}
