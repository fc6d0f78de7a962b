/* The door to the node's kernel module. */
#ifndef VORN_SYSCALL_H
#define VORN_SYSCALL_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The command word of an operation: the library's module id above, the operation code below. */
#define VORN_SYSCALL_COMMAND(operation)                                                            \
  (((unsigned long)VORN_MODULE_ID << 32) | (unsigned long)(uint32_t)(operation))

/* What an argument that an operation does not take is passed as. */
#define VORN_SYSCALL_UNUSED (~0ul)

/* The operations that the library asks for. */
enum {
  VORN_SYSCALL_RESET_LOCAL_BOARD = 0x000,
  VORN_SYSCALL_REBOOT = 0x001,       /* reason, mid, first byte of the text */
  VORN_SYSCALL_REBOOT_COUNT = 0x002, /* two words of the caller, address of a uint32_t */
  VORN_SYSCALL_PANIC = 0x003,        /* address of a text of 256 bytes */
  VORN_SYSCALL_FREE_MEM = 0x400,     /* address of an unsigned long */
  VORN_SYSCALL_MEM_STAT = 0x401,     /* address of a uint64_t that receives the table's address */
  VORN_SYSCALL_MEM_STAT_DUMP = 0x402
};

/* Issues the private system call (number 259 on AArch64) with the command word and four arguments.
 * Returns what the kernel module answers; -1 with errno on failure, ENOSYS where the processor or
 * the kernel has no such call. The library makes every request through this symbol, so a process, a
 * simulator or a test can put its own function in front. Such a function must not allocate through
 * the library or start it: the library may hold a lock of its own around the request. Any thread;
 * signal-safe; blocks as the operation does. */
VORN_API long vorn_private_syscall(unsigned long command, unsigned long a1, unsigned long a2,
                                   unsigned long a3, unsigned long a4);

VORN_END_DECLS

#endif
