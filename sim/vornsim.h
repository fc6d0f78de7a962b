/* libvornsim.so plays the node's kernel module inside a process, so that a service can be developed
 * where there is none. A process links it before libvorn.so, or preloads it (LD_PRELOAD): its
 * vorn_private_syscall then stands before the library's own. Nothing is ever rebooted, reset
 * or stopped, and no stack dumped.
 *
 * It answers these operations of module 381, and -1 with ENOSYS to all others. Each call is
 * recorded:
 * - 0x000 reset the local board, 0x001 reboot, 0x003 panic: printed on standard error
 * - 0x002 read the reboot count: the count of vornsim_set_reboot_count, printed as well
 * - 0x100 to 0x104 the time of day: -1 with ENOSYS, so that the system's clock and zone serve
 * - 0x200 to 0x203 console, 0x500, 0x702 to 0x704 stacks: printed on standard error
 * - 0x400 free memory: the machine's, in kB
 * - 0x401 memory accounting: a table of 1024 counters, of the process
 * - 0x402 dump memory statistics: the table's modules, printed on standard error
 *
 * Any thread may call any function. All are signal-safe as far as the C library's vsnprintf is,
 * which formats what is printed. */
#ifndef VORNSIM_H
#define VORNSIM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The arguments of a call, as they were passed after the command word. */
typedef struct vornsim_call {
  unsigned long arguments[4]; /* VORN_SYSCALL_UNUSED where the operation takes none */
} vornsim_call_s;

/* Returns how often the operation was asked for; 0 for one that the simulator does not know.
 *   operation: operation code of vorn_syscall.h */
VORN_API unsigned long vornsim_count(unsigned int operation);

/* The arguments of the operation's latest call in *call.
 *   operation: operation code of vorn_syscall.h
 *   call: where the arguments go
 * Returns 0; -1 when there was none or call is NULL. */
VORN_API int vornsim_last_call(unsigned int operation, vornsim_call_s *call);

/* From now on the operation fails with -1 and that errno; 0 lifts it.
 *   operation: operation code of vorn_syscall.h
 *   error: errno of the failure, or 0
 * Returns 0; -1 for an operation that the simulator does not know. */
VORN_API int vornsim_fail(unsigned int operation, int error);

/* The reboot count that operation 0x002 answers; 0 at the start.
 *   count: the reboot count */
VORN_API void vornsim_set_reboot_count(uint32_t count);

VORN_END_DECLS

#endif
