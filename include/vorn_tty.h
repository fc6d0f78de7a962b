/* The node's console. The kernel module does the work; what the two arguments mean is its business,
 * they are passed on as they are.
 *
 * Each function returns what the module answers; -1 with errno on failure, ENOSYS where there is no
 * module. None writes a log message. Any thread; signal-safe; blocks as the module does. No
 * function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TTY_H
#define VORN_TTY_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Starts the login query on the console.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_start_agettyquery(unsigned long argument1, unsigned long argument2);

/* Stops the login query on the console.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_stop_agettyquery(unsigned long argument1, unsigned long argument2);

/* Turns printing on the console on.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_tty_printon(unsigned long argument1, unsigned long argument2);

/* Turns printing on the console off.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns what the module answers; -1 with errno on failure. */
VORN_API int vorn_tty_printoff(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
