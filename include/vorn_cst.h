/* The configuration store that the node's kernel module keeps: items with a value each, in
 * sections.
 *
 * Each call opens the module's control file "/proc/nyx/syscall", makes one request and closes it
 * again; nothing is kept between calls. It blocks as long as the module takes, and is no
 * cancellation point. Any thread may call, not a signal handler. A failed request logs two errors,
 * what failed and the operation; where the module refuses the caller (EPERM) there is the second
 * alone. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_CST_H
#define VORN_CST_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The longest section name, in bytes with its NUL. */
#define VORN_CST_SECTION_SIZE 35

/* The longest item name, in bytes with its NUL. */
#define VORN_CST_ITEM_SIZE 33

/* The longest value, in bytes with its NUL. */
#define VORN_CST_VALUE_SIZE 257

/* Copies the value of an item and its NUL into the out_size bytes at out; VORN_CST_VALUE_SIZE are
 * always enough.
 *   section: name of the section
 *   item_name: name of the item
 *   out: where the value goes
 *   out_size: bytes at out
 * Returns 0; -1 after an error message when a pointer is NULL, a name is too long, or the request
 * failed (out is left alone then); -1 without a message when the value does not fit, out then holds
 * an empty text where there is room for one. */
VORN_API int vorn_cst_getItem(const char *section, const char *item_name, char *out,
                              uint32_t out_size);

/* Gives an item this value.
 *   section: name of the section
 *   item_name: name of the item
 *   value: the new value
 * Returns 0; -1 after an error message when a pointer is NULL, a text is too long, or the request
 * failed. */
VORN_API int vorn_cst_setItem(const char *section, const char *item_name, const char *value);

/* Has the module read its configuration again.
 * Returns 0; -1 after an error message. */
VORN_API int vorn_cst_reloadConfig(void);

VORN_END_DECLS

#endif
