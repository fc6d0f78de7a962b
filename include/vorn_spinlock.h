/* The spin lock: a word that the thread that comes first sets. A thread that does not get it spins
 * for 100 microseconds, then gives the processor away for a millisecond (vorn_schedule), and so on.
 *
 * Not fair: no order among those that wait, and one may wait forever while others go in and out.
 * Not recursive: a holder that locks again never comes back. Any thread may unlock, the holder is
 * not recorded, and when a holder ends without unlocking the lock stays held. Taking a lock
 * acquires what the unlocker before it had written. Free and uncontended, no call enters the
 * kernel.
 *
 * The 100 microseconds are measured with vorn_time_getnanosec, and with clock_gettime(2) until the
 * time base has been started (vorn_Init).
 *
 * No operation is a cancellation point: one that arrives while a thread waits stays pending.
 *
 * Any thread may call, and the lock may lie in memory that processes share. In a signal handler,
 * trylock and unlock are safe; lock is only where no thread that the handler can interrupt holds
 * the same lock. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SPINLOCK_H
#define VORN_SPINLOCK_H

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* A spin lock, as other structures embed it. The operations use the field lock alone, and all zero
 * is a free lock too; the other fields serve debugging. */
typedef struct vorn_spinlock {
  uint64_t lock;     /* 0 free, 1 held */
  uint32_t magic;    /* VORN_SPINLOCK_MAGIC once initialised */
  int32_t owner_cpu; /* -1 */
  int64_t owner;     /* -1 */
} vorn_spinlock_s;

/* What vorn_spinlock_s::magic holds. */
#define VORN_SPINLOCK_MAGIC 0xDEAD4EADu

/* A free lock, to initialise a variable with. */
#define VORN_SPINLOCK_INIT                                                                         \
  { 0, VORN_SPINLOCK_MAGIC, -1, -1 }

/* Makes *lock a free lock, while no thread uses it.
 *   lock: the lock */
static inline void vorn_spinlock_init(vorn_spinlock_s *lock) {
  const vorn_spinlock_s free_lock = VORN_SPINLOCK_INIT;
  *lock = free_lock;
}

/* Waits until the lock is free and takes it, in the caller's name.
 *   spinlock: the lock, a vorn_spinlock_s * */
#define vorn_spinlock_lock(spinlock) do_vorn_spinlock_lock(&(spinlock)->lock, __func__, __LINE__)

/* Takes the lock if it is free now, in the caller's name. Never waits.
 *   spinlock: the lock, a vorn_spinlock_s *
 * Returns 1 when taken, else 0. */
#define vorn_spinlock_trylock(spinlock)                                                            \
  do_vorn_spinlock_trylock(&(spinlock)->lock, __func__, __LINE__)

/* Frees the lock, whichever thread took it, in the caller's name.
 *   spinlock: the lock, a vorn_spinlock_s * */
#define vorn_spinlock_unlock(spinlock)                                                             \
  do_vorn_spinlock_unlock(&(spinlock)->lock, __func__, __LINE__)

/* Waits until the word *lock is free and takes it. function and line name the caller; they are not
 * used.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_spinlock_lock(uint64_t *lock, const char *function, unsigned int line);

/* Takes the word if it is free now. Never waits.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller
 * Returns 1 when taken, else 0. */
VORN_API int do_vorn_spinlock_trylock(uint64_t *lock, const char *function, unsigned int line);

/* Frees the word, whichever thread took it. One that is not held is left as it is.
 *   lock: the lock
 *   function: name of the calling function
 *   line: line of the caller */
VORN_API void do_vorn_spinlock_unlock(uint64_t *lock, const char *function, unsigned int line);

/* The flag that makes a thread write its stack (debug_dump_stack) each time that it has spun for
 * 100 microseconds, before it gives the processor away. */
#define VORN_SPINLOCK_DUMP_STACK 1ul

/* Sets bits of the process's spin-lock flags. They begin as 0; bits other than
 * VORN_SPINLOCK_DUMP_STACK are kept and mean nothing. Any thread, signal-safe; a change is lost
 * when another is made at the same moment.
 *   bits: flags to change
 * Returns 0. */
VORN_API int vorn_spinlock_set_flags(unsigned long bits);

/* Clears bits of the process's spin-lock flags, as vorn_spinlock_set_flags sets them.
 *   bits: flags to change
 * Returns 0. */
VORN_API int vorn_spinlock_clear_flags(unsigned long bits);

/* Stores the process's spin-lock flags in *out. Any thread, signal-safe.
 *   out: where the flags go
 * Returns 0. */
VORN_API int vorn_spinlock_get_flags(unsigned long *out);

/* Writes "current tid:%d, stack:%p(%s) << %p(%s) << %p(%s)." through evlog_original: the kernel's
 * id of the calling thread, and three return addresses with the functions that they lie in
 * (vorn_symbol_addr_to_string), from the innermost out. skip 0 begins with the address in the
 * function that called this one; each more leaves out one call.
 *
 * The addresses are found by frame pointers, within the stack as vorn_thrd_getcurrentstack knows
 * it: what lies farther out, or beyond a function built without a frame pointer, is shown as 0 (or,
 * in the latter case, may be left out). Any thread, signal-safe, keeps errno.
 *   skip: calls to leave out */
VORN_API void debug_dump_stack(unsigned int skip);

VORN_END_DECLS

#endif
