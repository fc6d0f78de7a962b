/* Console output, panic and reboot requests. The requests go to the node's kernel module. None is
 * repeated after a failure; without the module they log an error and fail. Any thread may call
 * these functions. Only printk is signal-safe. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_REBOOT_H
#define VORN_REBOOT_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Writes the text unchanged, without module, level or source position.
 *   format: printf format
 *   ...: values of the format
 * Returns the result of the logging library: for the default library, the number of bytes written,
 * or -1. Signal-safe if that library is. */
VORN_API int printk(const char *format, ...) VORN_PRINTF(1, 2);

/* Requests a reboot of the node. The kernel module defines reason and mid. It gets only the first
 * byte of text, which may be NULL. Normally does not return; if the request fails, logs that and
 * returns.
 *   reason: word for the kernel module
 *   mid: word for the kernel module
 *   text: text whose first byte is passed on, or NULL */
VORN_API void vorn_Reboot(unsigned long reason, int mid, const char *text);

/* Requests a reset of the local board.
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_ResetLocalBoard(void);

/* Reads the reboot count that the two words select. They are passed on unchanged.
 *   a: word for the kernel module
 *   b: word for the kernel module
 * Returns the count; 0 if the kernel module stored none; on failure, logs an error and returns -1
 * (all bits set). */
VORN_API unsigned int vorn_get_reboot_count(unsigned long a, unsigned long b);

/* Prints the message, cut to 255 characters, and asks the kernel module to stop the node with it.
 * The function does not stop the process: if the request fails, it logs an error and returns.
 *   format: printf format
 *   ...: values of the format */
VORN_API void panic(const char *format, ...) VORN_PRINTF(1, 2);

VORN_END_DECLS

#endif
