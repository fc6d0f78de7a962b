/* What every public header of Vorn starts from: visibility, C linkage, checked formats, integer
 * types. Valid C11 and C++. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_API_H
#define VORN_API_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

/* Marks what libvorn.so exports. A process may define a function of the same name and signature:
 * the library then calls the process's own. */
#define VORN_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define VORN_BEGIN_DECLS extern "C" {
#define VORN_END_DECLS }
#else
#define VORN_BEGIN_DECLS
#define VORN_END_DECLS
#endif

/* The argument at position text is a printf format, those from position first are its values; first
 * is 0 where the values come as a va_list. */
#define VORN_PRINTF(text, first) __attribute__((format(printf, text, first)))

/* The module id under which the library logs, allocates and calls the kernel module. */
#define VORN_MODULE_ID 381u

/* The name of that module. */
#define VORN_MODULE_NAME "OSAX"

/* Module ids run from 0 to VORN_MODULE_ID_COUNT - 1. */
#define VORN_MODULE_ID_COUNT 1024u

VORN_BEGIN_DECLS

/* A printf-like function that a show routine writes through. */
typedef int (*vorn_print_f)(const char *format, ...) VORN_PRINTF(1, 2);

VORN_END_DECLS

#endif
