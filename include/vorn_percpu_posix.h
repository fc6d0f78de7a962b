/* Wrappers for the one-time initialisation and the thread-specific keys of POSIX threads, which log
 * every failure. Any thread may call these functions; none is signal-safe. No function here is a
 * cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_PERCPU_POSIX_H
#define VORN_PERCPU_POSIX_H

#include <pthread.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Runs init unless *once has been used before (pthread_once(3)). Initialise *once with
 * PTHREAD_ONCE_INIT. Blocks while another thread runs init.
 *   once: state of the initialisation, at first PTHREAD_ONCE_INIT
 *   init: function to run once
 * Returns 0; on failure, logs a message and returns a positive error number. */
VORN_API int vorn_pthread_init_once(pthread_once_t *once, void (*init)(void));

/* Creates a key (pthread_key_create(3)). When a thread ends, calls destructor with the thread's
 * value, unless either is NULL.
 *   key: where the key goes
 *   destructor: function that gets the value of a thread that ends, or NULL
 * Returns 0; on failure, logs a message and returns a positive error number. */
VORN_API int vorn_key_create(pthread_key_t *key, void (*destructor)(void *));

/* Deletes a key without calling its destructor (pthread_key_delete(3)).
 *   key: the key
 * Returns 0; on failure, logs a message and returns a positive error number. */
VORN_API int vorn_key_delete(pthread_key_t key);

/* Sets the calling thread's value of the key (pthread_setspecific(3)). The value must stay valid
 * until the destructor gets it.
 *   key: the key
 *   value: value for the calling thread
 * Returns 0. If value is NULL, logs a message, keeps the old value and returns -1; on another
 * failure, logs a message and returns a positive error number. */
VORN_API int vorn_key_setspecific(pthread_key_t key, const void *value);

/* Returns the calling thread's value of the key (pthread_getspecific(3)). If it has none, logs an
 * error, although this may be normal, and returns NULL.
 *   key: the key */
VORN_API void *vorn_key_getspecific(pthread_key_t key);

VORN_END_DECLS

#endif
