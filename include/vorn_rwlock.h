/* The plain reader-writer spin lock: many readers or one writer.
 *
 * A reader takes the lock whenever no writer holds it, even if writers wait: while readers keep
 * coming, a writer may wait forever. If writers must make progress, use the ticket reader-writer
 * lock (vorn_trwlock.h). Waiting threads get the lock in no particular order. Waits spin without
 * limit, except in the two _mayblock operations, which sleep for a microsecond after every 10
 * failed attempts; use these for locks that may be held for long. No operation is a cancellation
 * point.
 *
 * A reader may take the lock for reading again, because waiting writers do not block readers. If a
 * writer takes the lock again, for reading or writing, or a reader takes it for writing, the call
 * never returns. The lock does not know its holders: any thread may release it, and a release
 * without a hold damages the lock. If a holder ends without releasing, the lock stays held. A
 * thread that takes the lock sees all writes that earlier holders made before they released it. No
 * call on a free and uncontended lock enters the kernel.
 *
 * Any thread may call these functions, and the lock may be in memory that processes share.
 * vorn_rwlock_try_read_lock and the release operations are safe in a signal handler. The operations
 * that wait are safe only if no thread that the handler can interrupt holds the same lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RWLOCK_H
#define VORN_RWLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A reader-writer lock. A lock of zero bytes is free. */
typedef struct vorn_rwlock {
  int64_t word; /* 0 free; positive: the number of readers; negative: a writer holds it */
} vorn_rwlock_s;

/* Initialiser of a free lock. */
#define VORN_RWLOCK_INIT                                                                           \
  { 0 }

/* Makes *lock a free lock. No thread may be using it.
 *   lock: the lock */
static inline void vorn_rwlock_init(vorn_rwlock_s *lock) { lock->word = 0; }

/* Waits until no writer holds the lock and takes it for reading. If no writer holds it, the macro
 * takes it inline; otherwise, the macro calls the function.
 *   lock: the lock, a vorn_rwlock_s * */
VORN_API void vorn_rwlock_read_lock(vorn_rwlock_s *lock);
#define vorn_rwlock_read_lock(lock) vorn_rwlock_read_take(lock)

/* Takes the lock for reading unless a writer holds it. Does not wait for holders; tries again if
 * another reader changes the number of readers first.
 *   lock: the lock
 * Returns 1 if the lock was taken; otherwise, 0. */
VORN_API int vorn_rwlock_try_read_lock(vorn_rwlock_s *lock);

/* Waits until no thread holds the lock and takes it for writing. The word is then -1. If no thread
 * holds it, the macro takes it inline; otherwise, the macro calls the function.
 *   lock: the lock, a vorn_rwlock_s * */
VORN_API void vorn_rwlock_write_lock(vorn_rwlock_s *lock);
#define vorn_rwlock_write_lock(lock) vorn_rwlock_write_take(lock)

/* Does what vorn_rwlock_read_lock does, but sleeps for a microsecond (vorn_usleep) after every 10
 * attempts.
 *   lock: the lock */
VORN_API void vorn_rwlock_read_lock_mayblock(vorn_rwlock_s *lock);

/* Does what vorn_rwlock_write_lock does, but sleeps for a microsecond (vorn_usleep) after every 10
 * attempts. The word is then INT64_MIN.
 *   lock: the lock */
VORN_API void vorn_rwlock_write_lock_mayblock(vorn_rwlock_s *lock);

/* Releases a lock that either operation has taken for reading.
 *   lock: the lock */
static inline void vorn_rwlock_read_unlock(vorn_rwlock_s *lock) {
  __atomic_fetch_sub(&lock->word, 1, __ATOMIC_RELEASE);
}

/* Releases a lock that either operation has taken for writing.
 *   lock: the lock */
static inline void vorn_rwlock_write_unlock(vorn_rwlock_s *lock) {
  __atomic_store_n(&lock->word, 0, __ATOMIC_RELEASE);
}

/* Implements the macro vorn_rwlock_read_lock.
 *   lock: the lock */
static inline void vorn_rwlock_read_take(vorn_rwlock_s *lock) {
  int64_t word = 0;
  if (!__atomic_compare_exchange_n(&lock->word, &word, 1, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED) &&
      (word < 0 || !__atomic_compare_exchange_n(&lock->word, &word, word + 1, 0, __ATOMIC_ACQ_REL,
                                                __ATOMIC_RELAXED)))
    (vorn_rwlock_read_lock)(lock);
}

/* Implements the macro vorn_rwlock_write_lock.
 *   lock: the lock */
static inline void vorn_rwlock_write_take(vorn_rwlock_s *lock) {
  int64_t word = 0;
  if (!__atomic_compare_exchange_n(&lock->word, &word, -1, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
    (vorn_rwlock_write_lock)(lock);
}

VORN_END_DECLS

#endif
