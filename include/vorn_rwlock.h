/* The plain reader-writer spin lock: many readers or one writer.
 *
 * Readers enter whenever no writer holds the lock, whether others wait or not: as long as readers
 * keep coming, a writer may wait forever. Where writers must get in, use the ticket reader-writer
 * lock. There is no order among those that wait. Waits spin without limit, but for the two
 * _mayblock operations, which sleep for a microsecond after every 10 failed attempts; these are for
 * locks that may be held for long. No operation is a cancellation point.
 *
 * A reader may take the lock for reading again, since waiting writers do not keep it out. A writer
 * that takes the lock again, for whatever, never comes back, nor does a reader that takes it for
 * writing. Holders are not recorded: any thread may release, and a release without a hold damages
 * the lock. When a holder ends without releasing, the lock stays held. Taking the lock acquires
 * what those that released it before had written. Free and uncontended, no call enters the kernel.
 *
 * Any thread may call, and the lock may lie in memory that processes share. In a signal handler,
 * vorn_rwlock_try_read_lock and the releases are safe; the operations that wait are only where no
 * thread that the handler can interrupt holds the same lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_RWLOCK_H
#define VORN_RWLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A reader-writer lock; all zero is a free one. */
typedef struct vorn_rwlock {
  int64_t word; /* 0 free; positive: the number of readers; negative: a writer holds it */
} vorn_rwlock_s;

/* A free lock, to initialise a variable with. */
#define VORN_RWLOCK_INIT                                                                           \
  { 0 }

/* Makes *lock a free lock, while no thread uses it.
 *   lock: the lock */
static inline void vorn_rwlock_init(vorn_rwlock_s *lock) { lock->word = 0; }

/* Waits until no writer holds the lock and takes it for reading.
 *   lock: the lock */
VORN_API void vorn_rwlock_read_lock(vorn_rwlock_s *lock);

/* Takes the lock for reading unless a writer holds it. Does not wait for holders; tries again while
 * other readers change the number first.
 *   lock: the lock
 * Returns 1 when taken, else 0. */
VORN_API int vorn_rwlock_try_read_lock(vorn_rwlock_s *lock);

/* Waits until no thread holds the lock and takes it for writing: the word is -1 then.
 *   lock: the lock */
VORN_API void vorn_rwlock_write_lock(vorn_rwlock_s *lock);

/* vorn_rwlock_read_lock that sleeps for a microsecond (vorn_usleep) after every 10 attempts.
 *   lock: the lock */
VORN_API void vorn_rwlock_read_lock_mayblock(vorn_rwlock_s *lock);

/* vorn_rwlock_write_lock that sleeps so. The word is INT64_MIN then.
 *   lock: the lock */
VORN_API void vorn_rwlock_write_lock_mayblock(vorn_rwlock_s *lock);

/* Releases what was taken for reading, by either operation.
 *   lock: the lock */
static inline void vorn_rwlock_read_unlock(vorn_rwlock_s *lock) {
  __atomic_fetch_sub(&lock->word, 1, __ATOMIC_RELEASE);
}

/* Releases what was taken for writing, by either operation.
 *   lock: the lock */
static inline void vorn_rwlock_write_unlock(vorn_rwlock_s *lock) {
  __atomic_store_n(&lock->word, 0, __ATOMIC_RELEASE);
}

VORN_END_DECLS

#endif
