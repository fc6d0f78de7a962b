/* The ticket spin lock: a thread that comes draws the next number and waits until it is served, so
 * the lock is handed on in the order of arrival and no thread starves.
 *
 * Waits spin without limit, without a pause and without giving the processor away: for critical
 * sections of a few instructions, and no more threads than CPUs, because the lock waits for the
 * next in the order even where that thread is not running.
 *
 * The lock checks its own use. A misuse is logged at information level, with the position of the
 * caller, as "%s in %s:%u lock:0x%lx magic:0x%x owner:%lu other:%u": the case, function and line,
 * serving and next as one word (serving in the lower half), and the other fields. The operation
 * goes on all the same; the checks repair nothing. The cases:
 *
 *   "UnInited lock"  the lock was not initialised, or has been destroyed
 *   "ReInited lock"  it is initialised already
 *   "AA lock"        the holder takes it again; lock then never comes back
 *   "AB lock"        it is released by a thread that does not hold it
 *   "ReUnlock"       it is released while no thread holds it (function is "ticket_unlock"):
 *                    serving is then past the next number, and the lock useless until it is
 *                    initialised anew
 *
 * When a holder ends without unlocking, the lock stays held. The holder is told by its kernel
 * thread id, cut to 32 bits: a child of fork() is another thread, and in memory that processes
 * share ids of different pid namespaces may collide. Taking a lock acquires what those that held it
 * before had written. Free and uncontended, no call enters the kernel, but for a thread's first,
 * which asks for its id.
 *
 * Any thread may call. No operation is a cancellation point. In a signal handler, none is safe: the
 * reports are not. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TICKETLOCK_H
#define VORN_TICKETLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A ticket spin lock. The numbers wrap. */
typedef struct vorn_tspinlock {
  uint32_t serving; /* the number that is served now */
  uint32_t next;    /* the number that is handed out next; equal to serving: the lock is free */
  uint32_t magic;   /* VORN_TSPINLOCK_MAGIC while initialised */
  uint32_t other;   /* all ones; only printed */
  uint64_t owner;   /* the holder's kernel thread id; all ones when no thread holds it */
} vorn_tspinlock_s;

/* What vorn_tspinlock_s::magic holds from init to destroy. */
#define VORN_TSPINLOCK_MAGIC 0xDEAD5EADu

/* What vorn_tspinlock_s::magic holds from destroy on. */
#define VORN_TSPINLOCK_DESTROYED 0x5EADDEADu

/* A free lock, to initialise a variable with. */
#define VORN_TSPINLOCK_INIT                                                                        \
  { 0, 0, VORN_TSPINLOCK_MAGIC, UINT32_MAX, UINT64_MAX }

/* Makes *lock a free lock, in the caller's name.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_init(lock) do_vorn_tspinlock_init((lock), __func__, __LINE__)

/* Marks *lock as no lock any more, in the caller's name.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_destroy(lock) do_vorn_tspinlock_destroy((lock), __func__, __LINE__)

/* Draws a number, waits until it is served and takes the lock, in the caller's name.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_lock(lock) do_vorn_tspinlock_lock((lock), __func__, __LINE__)

/* Takes the lock if it is free now, in the caller's name. Never waits.
 *   lock: the lock, a vorn_tspinlock_s *
 * Returns 1 when taken, else 0. */
#define vorn_tspinlock_trylock(lock) do_vorn_tspinlock_trylock((lock), __func__, __LINE__)

/* Serves the next number, in the caller's name.
 *   lock: the lock, a vorn_tspinlock_s * */
#define vorn_tspinlock_unlock(lock) do_vorn_tspinlock_unlock((lock), __func__, __LINE__)

/* Makes *lock a free lock, while no thread uses it. function and line name the caller, here and
 * below. Reads the memory as it is: what happens to be VORN_TSPINLOCK_MAGIC there is reported as
 * "ReInited lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_tspinlock_init(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Marks *lock as no lock any more. Reports "UnInited lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_tspinlock_destroy(vorn_tspinlock_s *lock, const char *function,
                                        uint32_t line);

/* Draws a number, waits until it is served and takes the lock. Reports "UnInited lock" and "AA
 * lock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_tspinlock_lock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Takes the lock if it is free now. Never waits. Reports as lock does.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller
 * Returns 1 when taken, else 0. */
VORN_API int do_vorn_tspinlock_trylock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

/* Serves the next number, in every case. Reports "UnInited lock", "AB lock" and "ReUnlock".
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_tspinlock_unlock(vorn_tspinlock_s *lock, const char *function, uint32_t line);

VORN_END_DECLS

#endif
