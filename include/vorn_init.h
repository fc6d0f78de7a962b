/* Start-up and shutdown of the library. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_INIT_H
#define VORN_INIT_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Starts the library. Every process calls it once, before any other function. Further and
 * concurrent calls do nothing.
 * Returns 0 if the library is started. If a step fails, logs that step and returns -1; the effects
 * of the earlier steps stay, and a later call runs all steps again. May block on the file system,
 * on tools that it runs, on another caller's start, and for up to a second on the start of another
 * process (vorn_cpuinfo.h); not signal-safe. */
VORN_API int vorn_Init(void);

/* Undoes the main parts of vorn_Init: releases the module names and the symbol table, but leaves
 * the time base, the ticks and the thread that samples the CPUs running. Does nothing if the
 * library is not started. Any thread; not signal-safe. */
VORN_API void vorn_destory(void);

/* Takes a backtrace, so that the C library loads its unwinder now and not in a fault handler.
 * Returns the depth of the backtrace, at most 3. vorn_Init calls this function. Not signal-safe. */
VORN_API int vorn_glibc_init(void);

VORN_END_DECLS

#endif
