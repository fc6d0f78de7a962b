/* The ticket spin lock: each thread takes the next number and waits until that number is served.
 * Threads get the lock in the order of arrival, so no thread starves.
 *
 * A wait spins without limit and without a pause, and does not yield the processor. Use the lock
 * for critical sections of a few instructions and for no more threads than CPUs, because the lock
 * waits for the next thread in the order even if that thread is not running.
 *
 * The lock detects misuse. It logs information with the position of the caller, as "%s in %s:%u
 * lock:0x%lx magic:0x%x owner:%lu other:%u": the case, function and line, serving and next as one
 * word (serving in the lower half), and the other fields. The operation then continues; the checks
 * repair nothing. The cases:
 *
 *   "UnInited lock"  the lock was not initialised, or has been destroyed
 *   "ReInited lock"  the lock is already initialised
 *   "AA lock"        the holder takes the lock again; the call then never returns
 *   "AB lock"        a thread that does not hold the lock releases it
 *   "ReUnlock"       a thread releases the lock while no thread holds it (function is
 *                    "ticket_unlock"): serving is then above next, and the lock is unusable
 *                    until it is initialised again
 *
 * If a holder ends without unlocking, the lock stays held. The lock identifies its holder by the
 * kernel thread id, cut to 32 bits: a child of fork() is another thread, and in memory that
 * processes share, ids from different pid namespaces may collide. A thread that takes the lock sees
 * all writes that earlier holders made before they unlocked it. No call on a free and uncontended
 * lock enters the kernel, except the first call of a thread, which reads its id.
 *
 * Any thread may call these functions. No operation is a cancellation point. None is safe in a
 * signal handler, because the log messages are not. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TICKETLOCK_H
#define VORN_TICKETLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A ticket spin lock. Its numbers wrap at 2^32. */
typedef struct vorn_tspinlock {
  uint32_t serving; /* the number that holds the lock now */
  uint32_t next;    /* the next number to take; the lock is free if it equals serving */
  uint32_t magic;   /* VORN_TSPINLOCK_MAGIC while initialised */
  uint32_t other;   /* all bits set; only printed */
  uint64_t owner;   /* the holder's kernel thread id; all bits set if no thread holds it */
} vorn_tspinlock_s;

/* The value of vorn_tspinlock_s::magic between init and destroy. */
#define VORN_TSPINLOCK_MAGIC 0xDEAD5EADu

/* The value of vorn_tspinlock_s::magic after destroy. */
#define VORN_TSPINLOCK_DESTROYED 0x5EADDEADu

/* Initialiser of a free lock. */
#define VORN_TSPINLOCK_INIT                                                                        \
  { 0, 0, VORN_TSPINLOCK_MAGIC, UINT32_MAX, UINT64_MAX }

/* Makes *lock a free lock. Passes the function and source line of the caller.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_init(lock) do_vorn_tspinlock_init((lock), __func__, __LINE__)

/* Marks *lock as destroyed. Passes the function and source line of the caller.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_destroy(lock) do_vorn_tspinlock_destroy((lock), __func__, __LINE__)

/* Takes a number, waits until it is served and takes the lock. Passes the function and source line
 * of the caller.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_lock(lock) do_vorn_tspinlock_lock((lock), __func__, __LINE__)

/* Takes the lock if it is free now. Passes the function and source line of the caller. Never waits.
 *   lock: the lock, a vorn_tspinlock_s *
 * Returns 1 if the lock was taken; otherwise, 0. */
#define vorn_tspinlock_trylock(lock) do_vorn_tspinlock_trylock((lock), __func__, __LINE__)

/* Releases the lock: serves the next number. Passes the function and source line of the caller.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_unlock(lock) do_vorn_tspinlock_unlock((lock), __func__, __LINE__)

/* Makes *lock a free lock. No thread may be using it. function and line name the caller, here and
 * below. Checks the memory before it writes it: if it already holds VORN_TSPINLOCK_MAGIC, logs
 * "ReInited lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_tspinlock_init(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Marks *lock as destroyed. May log "UnInited lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_tspinlock_destroy(vorn_tspinlock_s *lock, const char *function,
                                        uint32_t line);

/* Takes a number, waits until it is served and takes the lock. May log "UnInited lock" and "AA
 * lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_tspinlock_lock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Takes the lock if it is free now. Never waits. May log the same messages as
 * do_vorn_tspinlock_lock.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller
 * Returns 1 if the lock was taken; otherwise, 0. */
VORN_API int do_vorn_tspinlock_trylock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Releases the lock: always serves the next number. May log "UnInited lock", "AB lock" and
 * "ReUnlock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_tspinlock_unlock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

VORN_END_DECLS

#endif
