/* A stand-in for the node's kernel module, libvornsim.so, which runs inside a process, so that a
 * service can be developed and tested on a machine without the module. A process links it before
 * libvorn.so or preloads it (LD_PRELOAD): its vorn_private_syscall then replaces that of the
 * library. It never reboots, resets or stops anything.
 *
 * It answers every operation of module 381 (vorn_syscall.h) as docs/stand-in.md describes; other
 * operations fail with -1 and ENOSYS. Its console is standard error. It counts the calls of each
 * operation and keeps the arguments of the last one. The environment variable VORNSIM_ANSWER and
 * the functions below can make an operation fail.
 *
 * An operation argument is an operation code, VORN_SYSCALL_*. Any thread may call any function,
 * also while other threads make requests. All functions are signal-safe. Answers are signal-safe if
 * vsnprintf(3) of the C library is, which formats the console output, except that of the time of
 * day, which takes a lock. None is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORNSIM_H
#define VORNSIM_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Number of CPUs that the stand-in has, whatever the machine has. */
#define VORNSIM_CPU_COUNT 1024u

/* Maximum size in bytes of the record that vorn_get_cpu_task_info gets. */
#define VORNSIM_CPU_TASK_INFO_MAX 256u

/* The record that vorn_get_cpu_task_info gets, unless vornsim_set_cpu_task_info says otherwise. */
typedef struct vornsim_cpu_task_info {
  uint32_t cpu;  /* the requested CPU */
  int32_t tid;   /* kernel id of the thread of this process that runs on it; 0: none */
  char name[16]; /* that thread's name, or empty */
} vornsim_cpu_task_info_s;

/* The arguments of a call, which follow the command word. */
typedef struct vornsim_call {
  unsigned long arguments[4]; /* VORN_SYSCALL_UNUSED if the operation does not take one */
} vornsim_call_s;

/* Returns the number of calls of the operation, including failed ones; 0 if the stand-in does not
 * know the operation.
 *   operation: operation code of vorn_syscall.h */
VORN_API unsigned long vornsim_count(unsigned int operation);

/* Stores the arguments of the operation's last call in *call.
 *   operation: operation code of vorn_syscall.h
 *   call: where the arguments go
 * Returns 0; -1 if there was no call or call is NULL. */
VORN_API int vornsim_last_call(unsigned int operation, vornsim_call_s *call);

/* Makes every call of the operation fail from now on, with -1 and errno set to error: this is the
 * operation's rule. Such a call does nothing else. An operation has one rule: a new one replaces
 * the old one.
 *   operation: operation code of vorn_syscall.h
 *   error: errno of the failure; 0 removes the rule
 * Returns 0; -1 if the stand-in does not know the operation. */
VORN_API int vornsim_fail(unsigned int operation, int error);

/* Makes every call of the operation, or one of them, fail as vornsim_fail does.
 *   operation: operation code of vorn_syscall.h
 *   nth: 0 for every call; otherwise, the number of the call from now on, 1 for the next one
 *   error: errno of the failure; 0 removes the rule
 * Returns 0; -1 if the stand-in does not know the operation, or for a call after its 2^30th. */
VORN_API int vornsim_fail_call(unsigned int operation, unsigned int nth, int error);

/* Makes every call of the operation, or one of them, return answer and do nothing else: this is the
 * operation's rule.
 *   operation: operation code of vorn_syscall.h
 *   nth: 0 for every call; otherwise, the number of the call from now on, 1 for the next one
 *   answer: result of the call
 * Returns 0; -1 if the stand-in does not know the operation, or for a call after its 2^30th. */
VORN_API int vornsim_answer_call(unsigned int operation, unsigned int nth, int answer);

/* Resets everything except the memory table to the state at the start of a process without
 * VORNSIM_ANSWER: no calls, no rules, the highest frequency, no idle settings, and no change of
 * the system's clock. */
VORN_API void vornsim_reset(void);

/* Sets the answer to VORN_SYSCALL_REBOOT_COUNT, which is 0 by default.
 *   count: the reboot count */
VORN_API void vornsim_set_reboot_count(uint32_t count);

/* Sets the number of seconds to add to the system's clock for the time of day; the default is 0.
 *   seconds: seconds to add, may be negative */
VORN_API void vornsim_shift_clock(int64_t seconds);

/* Sets the record that vorn_get_cpu_task_info gets from now on, for every CPU. Copies the size
 * bytes at record, which must have the layout of the node's kernel module. No thread may request
 * the record during this call.
 *   record: bytes of the record
 *   size: number of bytes; 0 restores the stand-in's record
 * Returns 0; -1 if size is above VORNSIM_CPU_TASK_INFO_MAX, or record is NULL and size is not 0. */
VORN_API int vornsim_set_cpu_task_info(const void *record, size_t size);

VORN_END_DECLS

#endif
