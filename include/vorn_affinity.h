/* Affinity levels: named sets of CPUs that threads of the process "app_data" are bound to. There is
 * one, "affinity_level_1".
 *
 * Any thread may call; nothing here is for signal handlers. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_AFFINITY_H
#define VORN_AFFINITY_H

#include <pthread.h>

#include "vorn_api.h"
#include "vorn_thrd.h"

VORN_BEGIN_DECLS

/* Bytes of a level's name with its NUL. */
#define VORN_AFFINITY_NAME_SIZE 64

/* A level. */
typedef struct vorn_affinity_level {
  char name[VORN_AFFINITY_NAME_SIZE];      /* by which it is found */
  uint64_t cpuset[VORN_THRD_CPUSET_WORDS]; /* CPU n is bit n mod 64 of word n / 64 */
} vorn_affinity_level_s;

/* Reads the level, once, where the process is the one named "app_data": the item
 * "THREAD_CPU_AFFINITY_LIST" of section "affinity_level_1" of the configuration store, decimal CPU
 * numbers between commas. A number that a set has no room for is left out; what is no number counts
 * as 0. vorn_Init makes this call.
 * Returns 0, also when the item is missing, which is an information message; -1 after one when the
 * process's name cannot be read, the next call tries again then. Blocks on /proc and the kernel
 * module. */
VORN_API int vorn_affinity_init(void);

/* Returns the level called name, valid and unchanged until the process ends; NULL when there is
 * none, or name is NULL.
 *   name: name of the level, "affinity_level_1" */
VORN_API const vorn_affinity_level_s *vorn_get_affinity_entity(const char *name);

/* Binds thread to the CPUs of the level called name (vorn_thrd_setbindcpu).
 *   thread: thread to bind
 *   name: name of the level, "affinity_level_1"
 * Returns 0, also when there is no such level and nothing is changed; -1 when name is NULL, and
 * after a log message when the system refuses. */
VORN_API int vorn_set_thread_affinity(pthread_t thread, const char *name);

/* The counterpart of vorn_affinity_init. Levels stay: there is nothing to release.
 * Returns 0. */
VORN_API int vorn_affinity_exit(void);

VORN_END_DECLS

#endif
