/* The library's tick: 250 a second, read from the kernel where its jiffies driver is there, else
 * derived from the time base. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_JIFFIES_H
#define VORN_JIFFIES_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The mapping of the kernel's counter: map 0 of the jiffies driver's UIO device. */
typedef struct vorn_jiffies_uio {
  int32_t dev_fd;    /* the descriptors of the last opening, which has closed them again */
  int32_t addr_fd;   /* attribute "addr" */
  int32_t size_fd;   /* attribute "size" */
  int32_t offset_fd; /* attribute "offset" */
  uint64_t addr;     /* physical address of the map */
  int64_t size;      /* its length in bytes */
  const volatile uint64_t *jiffies; /* the counter in the mapping; NULL: there is no mapping */
} vorn_jiffies_uio_s;

/* Returns the tick count. The first call starts the module; after that it is one flag test and one
 * load, or a reading of the time base where there is no driver. Never fails. Any thread;
 * signal-safe after the first call. */
VORN_API uint64_t vorn_get_jiffies(void);

/* Starts the module: tries the driver, then starts the time base, and counts as done when either
 * works. A process that starts without the driver keeps the time base, unless a later
 * jiffies_usr_main (another vorn_Init makes one) finds it. Any thread; blocks on another caller's
 * start and on the file system. */
VORN_API void jiffies_Init(void);

/* Returns value: there is nothing to release.
 *   value: value to return */
VORN_API int jiffies_fini(int value);

/* Maps the driver's counter, once per process.
 * Returns 0, also when it is mapped already; -1 after an error message when it cannot be mapped,
 * and the next call tries again. Any thread; blocks as jiffies_Init does. */
VORN_API int jiffies_usr_main(void);

/* Returns the mapping record, of the process; never NULL. */
VORN_API vorn_jiffies_uio_s *jiffies_uio_get(void);

/* Closes nothing: an opening has closed its descriptors by the time it returns, and the numbers in
 * the record may be another file's by then.
 * Returns what close(2) returns for no descriptor, -1 with errno EBADF. Any thread; signal-safe. */
VORN_API int jiffies_uio_adp_close(void);

VORN_END_DECLS

#endif
