/* The ticket reader-writer lock: many readers or one writer, served in the order of arrival. A
 * reader waits for the writers that came before it, a writer for every thread that came before it,
 * so no thread starves. Readers that follow each other hold the lock together.
 *
 * Waits spin without limit and do not give the processor away: for short critical sections, and no
 * more threads than CPUs. Not recursive, not even for readers: a reader that takes the lock again
 * while a writer waits never comes back. Holders are not recorded: any thread may release, and a
 * release without a hold damages the lock. When a holder ends without releasing, later writers
 * never get in, nor, if it was a writer, later readers. Taking the lock acquires what those that
 * released it before had written. No call enters the kernel.
 *
 * Any thread may call, and the lock may lie in memory that processes share. No operation is a
 * cancellation point. In a signal handler, the trylock and unlock operations are safe; the
 * operations that wait are only where no thread that the handler can interrupt is using the same
 * lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TRWLOCK_H
#define VORN_TRWLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A ticket reader-writer lock; all zero is a free one. Each counter wraps by itself. */
typedef struct vorn_trwlock {
  uint32_t completions;       /* releases by readers and writers */
  uint32_t write_completions; /* releases by writers */
  uint32_t requests;          /* acquisitions asked for by readers and writers */
  uint32_t write_requests;    /* acquisitions asked for by writers */
} __attribute__((aligned(8))) vorn_trwlock_s;

/* A free lock, to initialise a variable with. */
#define VORN_TRWLOCK_INIT                                                                          \
  { 0, 0, 0, 0 }

/* Makes *lock a free lock, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_init(lock) do_vorn_trwlock_init((lock), __func__, __LINE__)

/* Does nothing: a lock holds no resources.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_destroy(lock) do_vorn_trwlock_destroy((lock), __func__, __LINE__)

/* Waits for the writers that asked before and takes the lock for reading, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_read_lock(lock) do_vorn_trwlock_read_lock((lock), __func__, __LINE__)

/* Releases what was taken for reading, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_read_unlock(lock) do_vorn_trwlock_read_unlock((lock), __func__, __LINE__)

/* Takes the lock for reading unless a writer holds it or waits for it, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s *
 * Returns 1 when taken, else 0. */
#define vorn_trwlock_read_trylock(lock) do_vorn_trwlock_read_trylock((lock), __func__, __LINE__)

/* Waits for every thread that asked before and takes the lock for writing, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_write_lock(lock) do_vorn_trwlock_write_lock((lock), __func__, __LINE__)

/* Releases what was taken for writing, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_write_unlock(lock) do_vorn_trwlock_write_unlock((lock), __func__, __LINE__)

/* Takes the lock for writing unless another thread holds it or waits for it, in the caller's name.
 *   lock: the lock, a vorn_trwlock_s *
 * Returns 1 when taken, else 0. */
#define vorn_trwlock_write_trylock(lock) do_vorn_trwlock_write_trylock((lock), __func__, __LINE__)

/* Makes *lock a free lock, while no thread uses it. function and line name the caller, here and
 * below; they are not used.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_init(vorn_trwlock_s *lock, const char *function, unsigned int line);

/* Does nothing: a lock holds no resources.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_destroy(vorn_trwlock_s *lock, const char *function,
                                      unsigned int line);

/* Waits for the writers that asked before and takes the lock for reading.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_read_lock(vorn_trwlock_s *lock, const char *function,
                                        unsigned int line);

/* Releases what was taken for reading.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_read_unlock(vorn_trwlock_s *lock, const char *function,
                                          unsigned int line);

/* Takes the lock for reading unless a writer holds it or waits for it. Does not wait for holders;
 * tries again while others ask for the lock at the same moment.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller
 * Returns 1 when taken, else 0. */
VORN_API int do_vorn_trwlock_read_trylock(vorn_trwlock_s *lock, const char *function,
                                          unsigned int line);

/* Waits for every thread that asked before and takes the lock for writing.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_write_lock(vorn_trwlock_s *lock, const char *function,
                                         unsigned int line);

/* Releases what was taken for writing.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_trwlock_write_unlock(vorn_trwlock_s *lock, const char *function,
                                           unsigned int line);

/* Takes the lock for writing unless another thread holds it or waits for it. Does not wait for
 * holders; tries again while others ask for the lock at the same moment.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller
 * Returns 1 when taken, else 0. */
VORN_API int do_vorn_trwlock_write_trylock(vorn_trwlock_s *lock, const char *function,
                                           unsigned int line);

VORN_END_DECLS

#endif
