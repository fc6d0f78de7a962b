/* Module names and the version stamp of the process. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_PROCESS_H
#define VORN_PROCESS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Builds the table of module names: rows of the node's table, compiled in, and of the file
 * "/WRK/conf/vorn_module_names" where there is one, read once per process (lines of an id and an
 * upper-case name, as in the compiled-in table). A row replaces what its id was called before; an
 * id without a row keeps the name it was given, else it is "NONE". Nothing happens when the table
 * is built. The name functions below call it when they need it. Any thread; blocks on another
 * builder and on the file; not signal-safe. */
VORN_API void pid_init_names(void);

/* Clears the table, names given by vorn_pid_set_name included, until something builds it again. Any
 * thread; not signal-safe. */
VORN_API void pid_destroy_names(void);

/* Returns the name of module id, to be read but not freed: the table's for ids below 1024, for
 * others the number's low 16 bits in angle brackets, in a buffer of the calling thread that its
 * next such call overwrites. Any thread; signal-safe as long as the table stands.
 *   id: a module id */
VORN_API const char *vorn_pid_get_name(unsigned int id);

/* Names module id. The pointer is kept, not a copy: name stays the caller's and must outlive the
 * table. An id above 1023 and a NULL name are ignored. It takes no lock: two callers for one id
 * leave one of the two names. Any thread; signal-safe as long as the table stands.
 *   id: a module id
 *   name: name of the module */
VORN_API void vorn_pid_set_name(unsigned int id, const char *name);

/* Returns a stamp that tells this run of the process from others: CLOCK_MONOTONIC_RAW in
 * nanoseconds at the first call, 0 forever when the clock could not be read then. Any thread; the
 * first call is not signal-safe. */
VORN_API uint64_t ps_get_version(void);

VORN_END_DECLS

#endif
