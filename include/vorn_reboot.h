/* Console print, panic and the reboot requests. The requests go to the node's kernel module; none
 * is tried again, and where the module is missing they fail with an error message. Any thread may
 * call; none but printk is signal-safe. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_REBOOT_H
#define VORN_REBOOT_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Writes the text as it stands, without module, level or source position.
 *   format: printf format
 *   ...: values of the format
 * Returns what the logging library returns: for the default one the number of bytes written, or -1.
 * Signal-safe as that library is. */
VORN_API int printk(const char *format, ...) VORN_PRINTF(1, 2);

/* Asks for a reboot of the node. What reason and mid mean is the kernel module's business; of text,
 * which may be NULL, the first byte alone reaches it. Normally does not return; when the request
 * fails it logs that and returns.
 *   reason: word for the kernel module
 *   mid: word for the kernel module
 *   text: text whose first byte is passed on, or NULL */
VORN_API void vorn_Reboot(unsigned long reason, int mid, const char *text);

/* Asks for a reset of the local board.
 * Returns 0, or -1 after an error message. */
VORN_API int vorn_ResetLocalBoard(void);

/* The number of reboots that the two words, which are passed through, select.
 *   a: word for the kernel module
 *   b: word for the kernel module
 * Returns the count, 0 when the kernel module wrote none; -1 (all bits set) after an error message.
 */
VORN_API unsigned int vorn_get_reboot_count(unsigned long a, unsigned long b);

/* Prints the message, cut at 255 characters, and asks the kernel module to take the node down with
 * it. It does not stop the process itself: when the request fails, after an error message, it
 * returns to its caller.
 *   format: printf format
 *   ...: values of the format */
VORN_API void panic(const char *format, ...) VORN_PRINTF(1, 2);

VORN_END_DECLS

#endif
