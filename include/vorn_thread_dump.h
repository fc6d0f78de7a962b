/* Stacks that the node's kernel module dumps. What the two arguments mean, which thread or CPU
 * among it, is the module's business: they are passed on as they are.
 *
 * Each function returns what the module answers; -1 with errno on failure, ENOSYS where there is no
 * module. None writes a log message. Any thread; signal-safe; blocks as the module does. No
 * function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_THREAD_DUMP_H
#define VORN_THREAD_DUMP_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Dumps the stack of a thread.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_thread_dump_thread_stack(unsigned long argument1, unsigned long argument2);

/* Dumps the stack of a thread only while it is not running.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_thread_stack_if_not_running(unsigned long argument1,
                                                        unsigned long argument2);

/* Dumps the stack of what a CPU runs.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_cpu_stack(unsigned long argument1, unsigned long argument2);

/* Dumps the kernel stack of what a CPU runs.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_cpu_stack_knl(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
