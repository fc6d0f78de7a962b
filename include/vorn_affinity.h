/* Affinity levels: named sets of CPUs to which threads of the process "app_data" are bound. There
 * is one level, "affinity_level_1".
 *
 * Any thread may call these functions. None is safe in a signal handler, and none is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_AFFINITY_H
#define VORN_AFFINITY_H

#include <pthread.h>

#include "vorn_api.h"
#include "vorn_thrd.h"

VORN_BEGIN_DECLS

/* Size of a level's name in bytes, with its NUL. */
#define VORN_AFFINITY_NAME_SIZE 64

/* A level. */
typedef struct vorn_affinity_level {
  char name[VORN_AFFINITY_NAME_SIZE];      /* the name for lookups */
  uint64_t cpuset[VORN_THRD_CPUSET_WORDS]; /* CPU n is bit n mod 64 of word n / 64 */
} vorn_affinity_level_s;

/* Reads the level, once, if the process is named "app_data". The level is the item
 * "THREAD_CPU_AFFINITY_LIST" of section "affinity_level_1" in the configuration store: decimal CPU
 * numbers separated by commas. Ignores a number that is too large for a set; reads an item that is
 * not a number as 0. vorn_Init calls this function.
 * Returns 0; if the item is missing, logs information and returns 0. If the process's name cannot
 * be read, logs information and returns -1, and the next call tries again. Blocks on /proc and the
 * kernel module. */
VORN_API int vorn_affinity_init(void);

/* Returns the level called name, which stays valid and unchanged until the process ends; NULL if
 * there is none or name is NULL.
 *   name: name of the level, "affinity_level_1" */
VORN_API const vorn_affinity_level_s *vorn_get_affinity_entity(const char *name);

/* Binds thread to the CPUs of the level called name (vorn_thrd_setbindcpu).
 *   thread: thread to bind
 *   name: name of the level, "affinity_level_1"
 * Returns 0; if there is no such level, changes nothing and returns 0. Returns -1 if name is NULL;
 * logs a message and returns -1 if the system refuses. */
VORN_API int vorn_set_thread_affinity(pthread_t thread, const char *name);

/* Does nothing: the counterpart of vorn_affinity_init has nothing to release, and the levels stay
 * valid.
 * Returns 0. */
VORN_API int vorn_affinity_exit(void);

VORN_END_DECLS

#endif
