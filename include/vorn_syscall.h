/* The private system call, which makes requests to the node's kernel module. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SYSCALL_H
#define VORN_SYSCALL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The command word of an operation: the library's module id in the upper half, the operation code
 * in the lower half.
 *   operation: operation code, VORN_SYSCALL_*
 * Returns the command word. */
#define VORN_SYSCALL_COMMAND(operation)                                                            \
  (((unsigned long)VORN_MODULE_ID << 32) | (unsigned long)(uint32_t)(operation))

/* The value to pass for an argument that an operation does not take. */
#define VORN_SYSCALL_UNUSED (~0ul)

/* The operations that the library requests. */
enum {
  VORN_SYSCALL_RESET_LOCAL_BOARD = 0x000,
  VORN_SYSCALL_REBOOT = 0x001,       /* reason, mid, first byte of the text */
  VORN_SYSCALL_REBOOT_COUNT = 0x002, /* two words of the caller, address of a uint32_t */
  VORN_SYSCALL_PANIC = 0x003,        /* address of a text of 256 bytes */
  VORN_SYSCALL_LOCAL_TIME = 0x100,
  VORN_SYSCALL_LOCAL_TIME_FROM_UTC = 0x101,
  VORN_SYSCALL_TIME = 0x102,
  VORN_SYSCALL_DST_FROM_UTC = 0x103,
  VORN_SYSCALL_DST_TIME = 0x104,
  VORN_SYSCALL_START_AGETTY_QUERY = 0x200,
  VORN_SYSCALL_STOP_AGETTY_QUERY = 0x201,
  VORN_SYSCALL_TTY_PRINT_ON = 0x202,
  VORN_SYSCALL_TTY_PRINT_OFF = 0x203,
  VORN_SYSCALL_CPUFREQ_LOW_ALL = 0x300,
  VORN_SYSCALL_CPUFREQ_HIGH_ALL = 0x301,
  VORN_SYSCALL_CPUFREQ_UP = 0x302,
  VORN_SYSCALL_CPUFREQ_DOWN = 0x303,
  VORN_SYSCALL_CPUFREQ_GET = 0x304,
  VORN_SYSCALL_GET_IDLE_NO_CSTATES = 0x305, /* CPU number, address of the value */
  VORN_SYSCALL_SET_IDLE_NO_CSTATES = 0x306, /* CPU number, address of the value */
  VORN_SYSCALL_CPU_TASK_INFO = 0x307,       /* CPU number, address of the record */
  VORN_SYSCALL_FREE_MEM = 0x400,            /* address of an unsigned long */
  VORN_SYSCALL_MEM_STAT = 0x401, /* address of a uint64_t that receives the table's address */
  VORN_SYSCALL_MEM_STAT_DUMP = 0x402,
  VORN_SYSCALL_DUMP_THREAD_STACK = 0x500,
  VORN_SYSCALL_THREAD_STATUS = 0x701, /* address of an unsigned int, the thread's kernel id */
  VORN_SYSCALL_DUMP_CPU_STACK_KERNEL = 0x702,
  VORN_SYSCALL_DUMP_CPU_STACK = 0x703,
  VORN_SYSCALL_DUMP_STACK_IF_NOT_RUNNING = 0x704,
  VORN_SYSCALL_WAIT = 0x800 /* addresses of the word, of the ticks, and of an unsigned long */
};

/* Issues the private system call (number 259 on AArch64) with the command word and four arguments.
 *   command: command word, VORN_SYSCALL_COMMAND(operation)
 *   a1: first argument of the operation
 *   a2: second argument of the operation
 *   a3: third argument of the operation
 *   a4: fourth argument of the operation
 * Returns the answer of the kernel module; -1 with errno on failure (ENOSYS if the processor or the
 * kernel has no such call). The library makes every request through this symbol, so a process, the
 * stand-in (vornsim.h) or a test can replace it with its own function. Such a function must not
 * allocate through the library or start it, because the library may hold one of its locks during
 * the request. Any thread; signal-safe; blocks as the operation does. */
VORN_API long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                                   unsigned long a3, unsigned long a4);

VORN_END_DECLS

#endif
