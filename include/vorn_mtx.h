/* POSIX mutexes of three types, which this library numbers. No function here is a cancellation
 * point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_MTX_H
#define VORN_MTX_H

#include <pthread.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A type for vorn_mtx_init: a second lock by the holder never returns. The numbers of the types are
 * not those of POSIX. */
#define VORN_MTX_NORMAL 0

/* A type for vorn_mtx_init: a second lock by the holder, and an unlock by another thread, fail. */
#define VORN_MTX_ERRORCHECK 1

/* A type for vorn_mtx_init: the holder may lock again, and must unlock as often. */
#define VORN_MTX_RECURSIVE 2

/* Initialises a mutex of that type (pthread_mutex_init(3)).
 *   mutex: the mutex
 *   type: VORN_MTX_NORMAL, VORN_MTX_ERRORCHECK or VORN_MTX_RECURSIVE
 * Returns 0; -1 for another type, with the mutex unchanged; a positive error number if the system
 * fails. Any thread; not signal-safe. */
VORN_API int vorn_mtx_init(pthread_mutex_t *mutex, int type);

/* Destroys a mutex: pthread_mutex_destroy(mutex). Any thread, while no thread uses the mutex; not
 * signal-safe.
 *   mutex: the mutex
 * Returns 0 or a positive error number. */
VORN_API int vorn_mtx_destroy(pthread_mutex_t *mutex);

VORN_END_DECLS

#endif
