/* The spin lock. A thread that finds the lock held spins for 100 microseconds, then sleeps for a
 * millisecond (vorn_schedule), and repeats this until it gets the lock.
 *
 * The lock is not fair: waiting threads get it in no particular order, and one may wait forever
 * while others take and release it. It is not recursive: if a holder locks again, the call never
 * returns. The lock does not know its holder: any thread may unlock it, and if a holder ends
 * without unlocking, the lock stays held. A thread that takes the lock sees all writes that the
 * previous holder made before it unlocked. No call on a free and uncontended lock enters the
 * kernel.
 *
 * The library measures the 100 microseconds with vorn_time_getnanosec, and with clock_gettime(2)
 * until the time base has been started (vorn_Init).
 *
 * No operation is a cancellation point: a cancellation that arrives while a thread waits stays
 * pending.
 *
 * Any thread may call these functions, and the lock may be in memory that processes share. trylock
 * and unlock are safe in a signal handler. lock is safe only if no thread that the handler can
 * interrupt holds the same lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SPINLOCK_H
#define VORN_SPINLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A spin lock, which other structures can embed. The operations use only the field lock, so a lock
 * of zero bytes is also free; the other fields are for debugging. */
typedef struct vorn_spinlock {
  uint64_t lock;     /* 0 free, 1 held */
  uint32_t magic;    /* VORN_SPINLOCK_MAGIC after initialisation */
  int32_t owner_cpu; /* -1 */
  int64_t owner;     /* -1 */
} vorn_spinlock_s;

/* The value of vorn_spinlock_s::magic. */
#define VORN_SPINLOCK_MAGIC 0xDEAD4EADu

/* Initialiser of a free lock. */
#define VORN_SPINLOCK_INIT                                                                         \
  { 0, VORN_SPINLOCK_MAGIC, -1, -1 }

/* Makes *lock a free lock. No thread may be using it.
 *   lock: the lock */
static inline void vorn_spinlock_init(vorn_spinlock_s *lock) {
  const vorn_spinlock_s free_lock = VORN_SPINLOCK_INIT;
  *lock = free_lock;
}

/* Waits until the lock is free and takes it. Passes the function and source line of the caller. If
 * the lock is free, takes it inline; otherwise, calls do_vorn_spinlock_lock.
 *   spinlock: the lock, a vorn_spinlock_s * */
#define vorn_spinlock_lock(spinlock) vorn_spinlock_take(&(spinlock)->lock, __func__, __LINE__)

/* Takes the lock if it is free now. Passes the function and source line of the caller. Never waits.
 *   spinlock: the lock, a vorn_spinlock_s *
 * Returns 1 if the lock was taken; otherwise, 0. */
#define vorn_spinlock_trylock(spinlock)                                                            \
  do_vorn_spinlock_trylock(&(spinlock)->lock, __func__, __LINE__)

/* Releases the lock inline, whichever thread took it. The lock is free afterwards, and all writes
 * before the call precede the next holder's accesses.
 *   spinlock: the lock, a vorn_spinlock_s * */
#define vorn_spinlock_unlock(spinlock) vorn_spinlock_release(&(spinlock)->lock)

/* Waits until the lock word is free and takes it. function and line name the caller; they are not
 * used.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_spinlock_lock(uint64_t *lock, const char *function, unsigned int line);

/* Implements vorn_spinlock_lock. Always inline: a stack dump of a waiting thread begins with the
 * function that called do_vorn_spinlock_lock.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
static inline __attribute__((always_inline)) void
vorn_spinlock_take(uint64_t *lock, const char *function, unsigned int line) {
  uint64_t word = 0;
  if (!__atomic_compare_exchange_n(lock, &word, 1, 0, __ATOMIC_ACQ_REL, __ATOMIC_RELAXED))
    do_vorn_spinlock_lock(lock, function, line);
}

/* Implements vorn_spinlock_unlock.
 *   lock: the lock */
static inline void vorn_spinlock_release(uint64_t *lock) {
  __atomic_store_n(lock, 0, __ATOMIC_RELEASE);
}

/* Takes the lock word if it is free now. Never waits.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller
 * Returns 1 if the lock was taken; otherwise, 0. */
VORN_API int do_vorn_spinlock_trylock(uint64_t *lock, const char *function, unsigned int line);

/* Releases the lock word, whichever thread took it. Leaves a free lock word unchanged.
 *   lock: the lock
 *   function: name of the calling function
 *   line: source line of the caller */
VORN_API void do_vorn_spinlock_unlock(uint64_t *lock, const char *function, unsigned int line);

/* The flag that makes a thread write its stack (debug_dump_stack) each time that it has spun for
 * 100 microseconds, before it sleeps. */
#define VORN_SPINLOCK_DUMP_STACK 1ul

/* Sets bits of the process's spin-lock flags, which are 0 by default. Other bits than
 * VORN_SPINLOCK_DUMP_STACK are stored but have no effect. Any thread, signal-safe; if two threads
 * change the flags at the same moment, one of the changes may be lost.
 *   bits: flags to set or to clear
 * Returns 0. */
VORN_API int vorn_spinlock_set_flags(unsigned long bits);

/* Clears bits of the process's spin-lock flags, as vorn_spinlock_set_flags sets them.
 *   bits: flags to set or to clear
 * Returns 0. */
VORN_API int vorn_spinlock_clear_flags(unsigned long bits);

/* Stores the process's spin-lock flags in *out. Any thread, signal-safe.
 *   out: where the flags go
 * Returns 0. */
VORN_API int vorn_spinlock_get_flags(unsigned long *out);

/* Writes "current tid:%d, stack:%p(%s) << %p(%s) << %p(%s)." through evlog_original: the kernel's
 * id of the calling thread, and three return addresses with the functions that contain them
 * (vorn_symbol_addr_to_string), the innermost first. With skip 0 the first address is in the
 * function that called this one; a larger skip omits that many calls.
 *
 * The function finds the addresses with frame pointers, within the stack that
 * vorn_thrd_getcurrentstack knows. An address outside that stack is shown as 0. An address after a
 * function that was built without a frame pointer is shown as 0 or omitted. Any thread,
 * signal-safe, keeps errno.
 *   skip: number of calls to omit */
VORN_API void debug_dump_stack(unsigned int skip);

VORN_END_DECLS

#endif
