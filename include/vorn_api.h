/* Definitions that every public header of Vorn uses: visibility, C linkage, checked formats and
 * integer types. Valid C11 and C++. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_API_H
#define VORN_API_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

/* Marks a name that libvorn.so exports. If a process defines a function of the same name and
 * signature, the library calls that function instead. */
#define VORN_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define VORN_BEGIN_DECLS extern "C" {
#define VORN_END_DECLS }
#else
#define VORN_BEGIN_DECLS
#define VORN_END_DECLS
#endif

/* Declares that the argument at position text is a printf format and that the arguments from
 * position first on are its values; first is 0 if the values are a va_list. */
#define VORN_PRINTF(text, first) __attribute__((format(printf, text, first)))

/* The module id under which the library logs, allocates and calls the kernel module. */
#define VORN_MODULE_ID 381u

/* The name of module VORN_MODULE_ID. */
#define VORN_MODULE_NAME "OSAX"

/* Module ids run from 0 to VORN_MODULE_ID_COUNT - 1. */
#define VORN_MODULE_ID_COUNT 1024u

VORN_BEGIN_DECLS

/* A printf-like function through which a show function writes its lines. */
typedef int (*vorn_print_f)(const char *format, ...) VORN_PRINTF(1, 2);

VORN_END_DECLS

#endif
