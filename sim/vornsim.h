/* libvornsim.so plays the node's kernel module inside a process, so that a service can be developed
 * and tested where there is none. A process links it before libvorn.so, or preloads it
 * (LD_PRELOAD): its vorn_private_syscall then takes the place of the library's own. Nothing is ever
 * rebooted, reset or stopped.
 *
 * It answers every operation of module 381 (vorn_syscall.h) as docs/stand-in.md lists, and -1 with
 * ENOSYS to all others. Standard error is its console. Each call is counted, with its arguments.
 * The environment variable VORNSIM_ANSWER and the functions below make an operation fail.
 *
 * Where a function takes an operation, it is its code, VORN_SYSCALL_*. Any thread may call any
 * function, while others make requests too. All are signal-safe, and so is an answer as far as the
 * C library's vsnprintf is, which formats what is printed; the time of day takes a lock. None is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORNSIM_H
#define VORNSIM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The CPUs that there are to the stand-in, whatever the machine has. */
#define VORNSIM_CPU_COUNT 1024u

/* The most bytes of a record that vorn_get_cpu_task_info gets. */
#define VORNSIM_CPU_TASK_INFO_MAX 256u

/* The record that vorn_get_cpu_task_info gets, unless vornsim_set_cpu_task_info says otherwise. */
typedef struct vornsim_cpu_task_info {
  uint32_t cpu;  /* the CPU that was asked for */
  int32_t tid;   /* the kernel's id of the thread of this process that it runs, 0: of none */
  char name[16]; /* that thread's name, or empty */
} vornsim_cpu_task_info_s;

/* The arguments of a call, as they were passed after the command word. */
typedef struct vornsim_call {
  unsigned long arguments[4]; /* VORN_SYSCALL_UNUSED where the operation takes none */
} vornsim_call_s;

/* Returns how often the operation was asked for, failures included; 0 for one that the stand-in
 * does not know.
 *   operation: operation code of vorn_syscall.h */
VORN_API unsigned long vornsim_count(unsigned int operation);

/* Stores the arguments of the operation's latest call in *call.
 *   operation: operation code of vorn_syscall.h
 *   call: where the arguments go
 * Returns 0; -1 when there was none or call is NULL. */
VORN_API int vornsim_last_call(unsigned int operation, vornsim_call_s *call);

/* Has every call of the operation fail from now on, with -1 and that errno: the operation's rule.
 * Nothing else is done at such a call. An operation has one rule: a new one takes the place of the
 * old.
 *   operation: operation code of vorn_syscall.h
 *   error: errno of the failure; 0 leaves the operation without a rule
 * Returns 0; -1 for an operation that the stand-in does not know. */
VORN_API int vornsim_fail(unsigned int operation, int error);

/* Has a call fail as vornsim_fail does, or only one of them.
 *   operation: operation code of vorn_syscall.h
 *   nth: 0 for every call, else which one from now on, 1 being the next
 *   error: errno of the failure; 0 leaves the operation without a rule
 * Returns 0; -1 for an operation that the stand-in does not know, and for a call beyond its
 * 2^30th. */
VORN_API int vornsim_fail_call(unsigned int operation, unsigned int nth, int error);

/* Has a call return that answer, and nothing else done, as the rule of its operation.
 *   operation: operation code of vorn_syscall.h
 *   nth: 0 for every call, else which one from now on, 1 being the next
 *   answer: result of the call
 * Returns 0; -1 for an operation that the stand-in does not know, and for a call beyond its
 * 2^30th. */
VORN_API int vornsim_answer_call(unsigned int operation, unsigned int nth, int answer);

/* Puts everything but the memory table back as it is at the start of a process without
 * VORNSIM_ANSWER: no calls, no rules, the highest frequency, no idle settings, the system's clock.
 */
VORN_API void vornsim_reset(void);

/* Sets the reboot count that VORN_SYSCALL_REBOOT_COUNT answers; 0 at the start.
 *   count: the reboot count */
VORN_API void vornsim_set_reboot_count(uint32_t count);

/* Adds that many seconds to the system's clock for the time of day; 0 at the start.
 *   seconds: seconds to add, also negative */
VORN_API void vornsim_shift_clock(int64_t seconds);

/* Sets what vorn_get_cpu_task_info gets from now on, for every CPU: the size bytes at record, which
 * are copied, in the layout of the node's own module. No thread may ask for the record meanwhile.
 *   record: bytes of the record
 *   size: number of bytes; 0 brings the stand-in's record back
 * Returns 0; -1 for more than VORNSIM_CPU_TASK_INFO_MAX bytes, and for a NULL record with a size.
 */
VORN_API int vornsim_set_cpu_task_info(const void *record, size_t size);

VORN_END_DECLS

#endif
