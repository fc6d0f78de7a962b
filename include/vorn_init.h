/* Start-up and shutdown of the library. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_INIT_H
#define VORN_INIT_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Starts the library. Every process calls it once before anything else; more calls, and concurrent
 * ones, do nothing.
 * Returns 0 when the library is started; -1 after a log message of the step that failed: what the
 * steps before it did stays, and a later call runs all of them again. May block on the file system,
 * on tools that it runs, on another caller's start, and for a second on that of another process
 * (vorn_cpuinfo.h); not signal-safe. */
VORN_API int vorn_Init(void);

/* Undoes vorn_Init as far as a process needs: the module names and the symbol table go, the time
 * base, the ticks and the thread that samples the CPUs stay. Nothing happens when the library is
 * not started. Any thread; not signal-safe. */
VORN_API void vorn_destory(void);

/* Takes a backtrace, so that the system library loads its unwinder now and not inside a fault
 * handler.
 * Returns the depth of the backtrace, at most 3. vorn_Init makes this call. Not signal-safe. */
VORN_API int vorn_glibc_init(void);

VORN_END_DECLS

#endif
