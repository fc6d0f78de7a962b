/* The configuration store of the node's kernel module: sections of items, each with a value.
 *
 * Each call opens the module's control file "/proc/nyx/syscall", makes one request and closes the
 * file again; nothing is kept between calls. It blocks as long as the module takes, and is not a
 * cancellation point. Any thread may call these functions; none is safe in a signal handler. If a
 * request fails, the library logs two errors, one with the cause and one with the operation. If the
 * module refuses the caller (EPERM), it logs only the second one. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CST_H
#define VORN_CST_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Maximum size of a section name in bytes, with its NUL. */
#define VORN_CST_SECTION_SIZE 35

/* Maximum size of an item name in bytes, with its NUL. */
#define VORN_CST_ITEM_SIZE 33

/* Maximum size of a value in bytes, with its NUL. */
#define VORN_CST_VALUE_SIZE 257

/* Copies the value of an item, with its NUL, to the out_size bytes at out. VORN_CST_VALUE_SIZE
 * bytes are always enough.
 *   section: name of the section
 *   item_name: name of the item
 *   out: where the value goes
 *   out_size: bytes at out
 * Returns 0. Logs an error, returns -1 and leaves out unchanged if a pointer is NULL, a name is too
 * long, or the request failed. Returns -1 without a log message if the value does not fit; out then
 * holds an empty text if it has room for one. */
VORN_API int vorn_cst_getItem(const char *section, const char *item_name, char *out,
                              uint32_t out_size);

/* Sets the value of an item.
 *   section: name of the section
 *   item_name: name of the item
 *   value: the new value
 * Returns 0; logs an error and returns -1 if a pointer is NULL, a text is too long, or the request
 * failed. */
VORN_API int vorn_cst_setItem(const char *section, const char *item_name, const char *value);

/* Asks the module to read its configuration again.
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_cst_reloadConfig(void);

VORN_END_DECLS

#endif
