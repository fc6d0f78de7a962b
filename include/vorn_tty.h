/* The node's console, which the kernel module controls. The functions pass their two arguments on
 * unchanged; the module defines their meaning.
 *
 * Each function returns the answer of the module; -1 with errno on failure (ENOSYS if there is no
 * module). None logs a message. Any thread; signal-safe; blocks as the module does. No function
 * here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TTY_H
#define VORN_TTY_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Starts the login prompt on the console.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_start_agettyquery(unsigned long argument1, unsigned long argument2);

/* Stops the login prompt on the console.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_stop_agettyquery(unsigned long argument1, unsigned long argument2);

/* Turns printing on the console on.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_tty_printon(unsigned long argument1, unsigned long argument2);

/* Turns printing on the console off.
 *   argument1: first word for the kernel module
 *   argument2: second word for the kernel module
 * Returns the answer of the module; -1 with errno on failure. */
VORN_API int vorn_tty_printoff(unsigned long argument1, unsigned long argument2);

VORN_END_DECLS

#endif
