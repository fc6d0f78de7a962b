/* Module names and the version stamp of the process. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_PROCESS_H
#define VORN_PROCESS_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Builds the table of module names from the compiled-in table of the node and from the file
 * "/WRK/conf/vorn_module_names" if it exists. The file is read once per process; each line has an
 * id and an upper-case name, as in the compiled-in table. A row replaces the previous name of its
 * id. An id without a row keeps its name, or is called "NONE" if it has none. Does nothing if the
 * table is already built. The functions below call this function if needed. Any thread; blocks on
 * another caller and on the file; not signal-safe. */
VORN_API void pid_init_names(void);

/* Clears the table, including names from vorn_pid_set_name, until a call builds it again. Any
 * thread; not signal-safe. */
VORN_API void pid_destroy_names(void);

/* Returns the name of module id, which the caller must not free. The name of an id below 1024 is in
 * the table. The name of another id is the low 16 bits of its number in angle brackets, in a buffer
 * of the calling thread that the next such call overwrites. Any thread; signal-safe while the table
 * is built.
 *   id: a module id */
VORN_API const char *vorn_pid_get_name(unsigned int id);

/* Sets the name of module id. Keeps the pointer and makes no copy: the caller owns name, which must
 * outlive the table. Does nothing if id is above 1023 or name is NULL. Takes no lock: if two
 * threads name one id, one of the two names stays. Any thread; signal-safe while the table is
 * built.
 *   id: a module id
 *   name: name of the module */
VORN_API void vorn_pid_set_name(unsigned int id, const char *name);

/* Returns a version stamp that distinguishes this run of the process from others:
 * CLOCK_MONOTONIC_RAW in nanoseconds at the first call. If the clock could not be read at the first
 * call, the stamp is always 0. Any thread; the first call is not signal-safe. */
VORN_API uint64_t ps_get_version(void);

VORN_END_DECLS

#endif
