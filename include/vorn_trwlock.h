/* The ticket reader-writer lock: many readers or one writer, served in the order of arrival. A
 * reader waits for the writers that arrived before it, a writer for all threads that arrived before
 * it, so no thread starves. Consecutive readers hold the lock together.
 *
 * A wait spins without limit and does not yield the processor: use the lock for short critical
 * sections and for no more threads than CPUs. The lock is not recursive, not even for readers: if a
 * reader takes the lock again while a writer waits, the call never returns. The lock does not know
 * its holders: any thread may release it, and a release without a hold damages the lock. If a
 * reader ends without releasing, later writers never get the lock; if a writer does, no later
 * thread gets it. A thread that takes the lock sees all writes that earlier holders made before
 * they released it. No call enters the kernel.
 *
 * Any thread may call these functions, and the lock may be in memory that processes share. No
 * operation is a cancellation point. The trylock and unlock operations are safe in a signal
 * handler. The operations that wait are safe only if no thread that the handler can interrupt is
 * using the same lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_TRWLOCK_H
#define VORN_TRWLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A ticket reader-writer lock. A lock of zero bytes is free. Each counter wraps on its own. */
typedef struct vorn_trwlock {
  uint32_t completions;       /* releases by readers and writers */
  uint32_t write_completions; /* releases by writers */
  uint32_t requests;          /* acquisitions requested by readers and writers */
  uint32_t write_requests;    /* acquisitions requested by writers */
} __attribute__((aligned(8))) vorn_trwlock_s;

/* Initialiser of a free lock. */
#define VORN_TRWLOCK_INIT                                                                          \
  { 0, 0, 0, 0 }

/* Makes *lock a free lock. Passes the function and line of the caller.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_init(lock) do_vorn_trwlock_init((lock), __func__, __LINE__)

/* Does nothing: a lock holds no resources.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_destroy(lock) do_vorn_trwlock_destroy((lock), __func__, __LINE__)

/* Waits for the writers that asked before and takes the lock for reading. Passes the function and
 * line of the caller. If no writer holds the lock or waits for it, takes it inline; otherwise,
 * calls do_vorn_trwlock_read_lock.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_read_lock(lock) vorn_trwlock_read_take((lock), __func__, __LINE__)

/* Releases a lock that was taken for reading, inline.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_read_unlock(lock) vorn_trwlock_read_release(lock)

/* Takes the lock for reading unless a writer holds it or waits for it. Passes the function and line
 * of the caller.
 *   lock: the lock, a vorn_trwlock_s *
 * Returns 1 if the lock was taken; otherwise, 0. */
#define vorn_trwlock_read_trylock(lock) do_vorn_trwlock_read_trylock((lock), __func__, __LINE__)

/* Waits for every thread that asked before and takes the lock for writing. Passes the function and
 * line of the caller. If no thread holds the lock or waits for it, takes it inline; otherwise,
 * calls do_vorn_trwlock_write_lock.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_write_lock(lock) vorn_trwlock_write_take((lock), __func__, __LINE__)

/* Releases a lock that was taken for writing, inline.
 *   lock: the lock, a vorn_trwlock_s * */
#define vorn_trwlock_write_unlock(lock) vorn_trwlock_write_release(lock)

/* Takes the lock for writing unless another thread holds it or waits for it. Passes the function
 * and line of the caller.
 *   lock: the lock, a vorn_trwlock_s *
 * Returns 1 if the lock was taken; otherwise, 0. */
#define vorn_trwlock_write_trylock(lock) do_vorn_trwlock_write_trylock((lock), __func__, __LINE__)

/* Makes *lock a free lock. No thread may be using it. function and line name the caller, here and
 * below; they are not used.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_init(vorn_trwlock_s *lock, const char *function, unsigned int line);

/* Does nothing: a lock holds no resources.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_destroy(vorn_trwlock_s *lock, const char *function,
                                      unsigned int line);

/* Waits for the writers that asked before and takes the lock for reading.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_read_lock(vorn_trwlock_s *lock, const char *function,
                                        unsigned int line);

/* Releases a lock that was taken for reading.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_read_unlock(vorn_trwlock_s *lock, const char *function,
                                          unsigned int line);

/* Takes the lock for reading unless a writer holds it or waits for it. Does not wait for holders;
 * tries again if another thread asks for the lock at the same moment.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller
 * Returns 1 if the lock was taken; otherwise, 0. */
VORN_API int do_vorn_trwlock_read_trylock(vorn_trwlock_s *lock, const char *function,
                                          unsigned int line);

/* Waits for every thread that asked before and takes the lock for writing.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_write_lock(vorn_trwlock_s *lock, const char *function,
                                         unsigned int line);

/* Releases a lock that was taken for writing.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_trwlock_write_unlock(vorn_trwlock_s *lock, const char *function,
                                           unsigned int line);

/* Takes the lock for writing unless another thread holds it or waits for it. Does not wait for
 * holders; tries again if another thread asks for the lock at the same moment.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller
 * Returns 1 if the lock was taken; otherwise, 0. */
VORN_API int do_vorn_trwlock_write_trylock(vorn_trwlock_s *lock, const char *function,
                                           unsigned int line);

/* A pair of counters as one word: completions and write_completions, or requests and
 * write_requests. The first counter is in the lower half. */
typedef uint64_t __attribute__((may_alias)) vorn_trwlock_pair_t;

/* Implements vorn_trwlock_read_lock. The last load tells the thread sanitizer, which pairs accesses
 * by their first byte, that a departed writer precedes this reader.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
static inline void vorn_trwlock_read_take(vorn_trwlock_s *lock, const char *function,
                                          unsigned int line) {
  vorn_trwlock_pair_t *requests = (vorn_trwlock_pair_t *)(void *)&lock->requests;
  uint64_t seen = __atomic_load_n(requests, __ATOMIC_RELAXED);
  uint64_t wanted;
  do {
    if (__atomic_load_n(&lock->write_completions, __ATOMIC_ACQUIRE) != seen >> 32) {
      do_vorn_trwlock_read_lock(lock, function, line);
      return;
    }
    wanted = (seen >> 32 << 32) | (uint32_t)(seen + 1);
  } while (
      !__atomic_compare_exchange_n(requests, &seen, wanted, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED));
  __atomic_load_n(&lock->completions, __ATOMIC_ACQUIRE);
}

/* Implements vorn_trwlock_read_unlock. An addition of 32 bits does not carry into the other
 * counter.
 *   lock: the lock */
static inline void vorn_trwlock_read_release(vorn_trwlock_s *lock) {
  __atomic_fetch_add(&lock->completions, 1, __ATOMIC_RELEASE);
}

/* Implements vorn_trwlock_write_lock.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
static inline void vorn_trwlock_write_take(vorn_trwlock_s *lock, const char *function,
                                           unsigned int line) {
  vorn_trwlock_pair_t *requests = (vorn_trwlock_pair_t *)(void *)&lock->requests;
  uint64_t seen = __atomic_load_n(requests, __ATOMIC_RELAXED);
  const uint64_t wanted = (((seen >> 32) + 1) << 32) | (uint32_t)(seen + 1);
  if (__atomic_load_n(&lock->completions, __ATOMIC_ACQUIRE) != (uint32_t)seen ||
      !__atomic_compare_exchange_n(requests, &seen, wanted, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
    do_vorn_trwlock_write_lock(lock, function, line);
}

/* Implements vorn_trwlock_write_unlock. No other thread changes the completions while a writer
 * holds the lock, so a store is enough.
 *   lock: the lock */
static inline void vorn_trwlock_write_release(vorn_trwlock_s *lock) {
  vorn_trwlock_pair_t *completions = (vorn_trwlock_pair_t *)(void *)&lock->completions;
  const uint64_t seen = __atomic_load_n(completions, __ATOMIC_RELAXED);
  const uint64_t wanted = (((seen >> 32) + 1) << 32) | (uint32_t)(seen + 1);
  __atomic_store_n(completions, wanted, __ATOMIC_RELEASE);
}

VORN_END_DECLS

#endif
