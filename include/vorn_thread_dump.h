/* Stack dumps by the node's kernel module. The functions pass their two arguments on unchanged; the
 * module defines their meaning, for example the thread or the CPU.
 *
 * Each function returns the answer of the module; -1 with errno on failure (ENOSYS if there is no
 * module). None logs a message. Any thread; signal-safe; blocks as the module does. No function
 * here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_THREAD_DUMP_H
#define VORN_THREAD_DUMP_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Dumps the stack of a thread.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_thread_dump_thread_stack(unsigned long argument1, unsigned long argument2);

/* Dumps the stack of a thread only while it is not running.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_thread_stack_if_not_running(unsigned long argument1,
                                                        unsigned long argument2);

/* Dumps the stack of the thread that runs on a CPU.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_cpu_stack(unsigned long argument1, unsigned long argument2);

/* Dumps the kernel stack of the thread that runs on a CPU.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_thrd_dump_cpu_stack_knl(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
