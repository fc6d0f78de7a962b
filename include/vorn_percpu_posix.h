/* Once-only initialisation and thread-specific keys of POSIX threads, with a log message for every
 * failure. Any thread may call; not signal-safe. No function here is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_PERCPU_POSIX_H
#define VORN_PERCPU_POSIX_H

#include <pthread.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Runs init unless *once has been used before (pthread_once(3)); *once starts as PTHREAD_ONCE_INIT.
 * Blocks while another thread runs it.
 *   once: state of the initialisation
 *   init: function that initialises
 * Returns 0, or a positive error after a log message. */
VORN_API int vorn_pthread_init_once(pthread_once_t *once, void (*init)(void));

/* Makes a key, whose destructor (NULL for none) is called with a thread's value, unless that is
 * NULL, when the thread ends (pthread_key_create(3)).
 *   key: where the key goes
 *   destructor: function that takes the value of a thread that ends, or NULL
 * Returns 0, or a positive error after a log message. */
VORN_API int vorn_key_create(pthread_key_t *key, void (*destructor)(void *));

/* Deletes a key without calling its destructor (pthread_key_delete(3)).
 *   key: the key
 * Returns 0, or a positive error after a log message. */
VORN_API int vorn_key_delete(pthread_key_t key);

/* Sets the calling thread's value of the key, borrowed until the destructor gets it
 * (pthread_setspecific(3)).
 *   key: the key
 *   value: value for the calling thread
 * Returns 0; -1 after a log message for a NULL value, the old one stays then; a positive error
 * after a log message otherwise. */
VORN_API int vorn_key_setspecific(pthread_key_t key, const void *value);

/* Returns the calling thread's value of the key (pthread_getspecific(3)); NULL after an error
 * message when it has none, which need not be an error.
 *   key: the key */
VORN_API void *vorn_key_getspecific(pthread_key_t key);

VORN_END_DECLS

#endif
