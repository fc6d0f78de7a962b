/* The library's tick counter: 250 ticks a second, read from the kernel's jiffies driver if there is
 * one, otherwise derived from the time base. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_JIFFIES_H
#define VORN_JIFFIES_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The mapping of the kernel's tick counter: map 0 of the jiffies driver's UIO device. */
typedef struct vorn_jiffies_uio {
  int32_t dev_fd;                   /* the descriptors of the last mapping, closed by now */
  int32_t addr_fd;                  /* attribute "addr" */
  int32_t size_fd;                  /* attribute "size" */
  int32_t offset_fd;                /* attribute "offset" */
  uint64_t addr;                    /* physical address of the map */
  int64_t size;                     /* its size in bytes */
  const volatile uint64_t *jiffies; /* the counter in the mapping; NULL: there is no mapping */
} vorn_jiffies_uio_s;

/* Returns the number of ticks. The first call starts the module; a later one tests a flag and loads
 * the counter, or reads the time base if there is no driver. Never fails. Any thread; signal-safe
 * after the first call. */
VORN_API uint64_t vorn_get_jiffies(void);

/* Starts the module: tries to map the driver's counter, and then starts the time base. The start
 * succeeds if either works. A process that starts without the driver uses the time base, unless a
 * later jiffies_usr_main (or vorn_Init, which calls it) finds the driver. Any thread; blocks on
 * another caller's start and on the file system. */
VORN_API void jiffies_Init(void);

/* Returns value; there is nothing to release.
 *   value: value to return */
VORN_API int jiffies_fini(int value);

/* Maps the driver's counter, once per process.
 * Returns 0, also if the counter is already mapped; logs an error and returns -1 if it cannot be
 * mapped, and the next call tries again. Any thread; blocks as jiffies_Init does. */
VORN_API int jiffies_usr_main(void);

/* Returns the process's mapping of the tick counter; never NULL. */
VORN_API vorn_jiffies_uio_s *jiffies_uio_get(void);

/* Closes nothing: jiffies_usr_main has already closed its descriptors, and their numbers may now
 * belong to other files.
 * Returns -1 with errno EBADF, as close(2) does for an invalid descriptor. Any thread;
 * signal-safe. */
VORN_API int jiffies_uio_adp_close(void);

VORN_END_DECLS

#endif
