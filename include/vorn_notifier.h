/* Notifier chains: lists of callbacks, ordered by priority, that a producer of events calls with an
 * action and data.
 *
 *   static vorn_notifier_chain_s chain = VORN_NOTIFIER_CHAIN_INIT("events");
 *   static vorn_notifier_block_s block = {on_event, NULL, 10};
 *
 *   vorn_atomic_notifier_chain_register(&chain, &block);
 *   vorn_atomic_notifier_call_chain__(&chain, 1, &event, -1, NULL);
 *
 * The caller owns a block and must keep it in place while it is registered. Registrations and calls
 * hold the chain's spin lock, also while the callbacks run. So a callback must not register or
 * unregister a block on the chain that calls it. It should also be short, because calls on a chain
 * wait for each other, and fork() waits for them.
 *
 * Any thread may call these functions. Only VornNotifierCallChain is safe in a signal handler. None
 * is a cancellation point; while the lock is held, the callbacks run with cancellation disabled.
 * The library logs every registration and every call as information. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_NOTIFIER_H
#define VORN_NOTIFIER_H

#include "vorn_api.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

struct vorn_notifier_block;

/* A callback. It gets its block, and the action and data of the call. If its result has the bit
 * VORN_NOTIFIER_STOP, no further block is called. */
typedef int (*vorn_notifier_f)(struct vorn_notifier_block *block, unsigned long action, void *data);

/* The bit of a callback's result that ends the call. */
#define VORN_NOTIFIER_STOP 0x8000

/* A block of a chain. */
typedef struct vorn_notifier_block {
  vorn_notifier_f notifier_call; /* not NULL */
  struct vorn_notifier_block
      *next;         /* set by the library; stays set after the block is unregistered */
  uint32_t priority; /* the chain calls larger priorities first */
} vorn_notifier_block_s;

/* A chain. */
typedef struct vorn_notifier_chain {
  const char *name;            /* for the log; not copied */
  vorn_spinlock_s lock;        /* guards the list */
  vorn_notifier_block_s *head; /* the first block; NULL if empty */
} vorn_notifier_chain_s;

/* Initialiser of an empty chain. */
#define VORN_NOTIFIER_CHAIN_INIT(name)                                                             \
  { (name), VORN_SPINLOCK_INIT, NULL }

/* Registers a block, with the file and line of the caller.
 *   chain: the chain
 *   block: block to register
 * Returns what vorn_atomic_notifier_chain_register__ returns. */
#define vorn_atomic_notifier_chain_register(chain, block)                                          \
  vorn_atomic_notifier_chain_register__(chain, block, __FILE__, __LINE__)

/* Unregisters a block, with the file and line of the caller.
 *   chain: the chain
 *   block: block to unregister
 * Returns what vorn_atomic_notifier_chain_unregister__ returns. */
#define vorn_atomic_notifier_chain_unregister(chain, block)                                        \
  vorn_atomic_notifier_chain_unregister__(chain, block, __FILE__, __LINE__)

/* Registers a block, after the blocks of the same priority. file and line name the caller. Do not
 * register a block that is already on a chain: the function does not check this.
 *   chain: the chain
 *   block: block to register or to unregister
 *   file: source file of the caller
 *   line: line of the caller
 * Returns 0. Does nothing if chain or block is NULL. */
VORN_API int vorn_atomic_notifier_chain_register__(vorn_notifier_chain_s *chain,
                                                   vorn_notifier_block_s *block, const char *file,
                                                   int line);

/* Unregisters a block. Its callback does not run after that.
 *   chain: the chain
 *   block: block to register or to unregister
 *   file: source file of the caller
 *   line: line of the caller
 * Returns 0, also if chain or block is NULL; -2 if the block is not on the chain. */
VORN_API int vorn_atomic_notifier_chain_unregister__(vorn_notifier_chain_s *chain,
                                                     vorn_notifier_block_s *block, const char *file,
                                                     int line);

/* Calls at most nrToCall blocks of the chain (all if negative), with the chain's lock held. Adds
 * the number of calls to *nrCalls, unless nrCalls is NULL.
 *   chain: the chain
 *   action: action for the callbacks
 *   data: data for the callbacks
 *   nrToCall: maximum number of blocks to call; negative for all
 *   nrCalls: counter to add the number of calls to, or NULL
 * Returns the result of the last callback; 0 if none ran or chain is NULL. */
VORN_API int vorn_atomic_notifier_call_chain__(vorn_notifier_chain_s *chain, unsigned long action,
                                               void *data, int nrToCall, int *nrCalls);

/* Calls the blocks of a chain as vorn_atomic_notifier_call_chain__ does, but without the lock, in
 * any context. The caller must ensure that no other thread changes the chain. A callback may
 * unregister its own block.
 *   chain: the chain
 *   action: action for the callbacks
 *   data: data for the callbacks
 *   nrToCall: maximum number of blocks to call; negative for all
 *   nrCalls: counter to add the number of calls to, or NULL
 * Returns what vorn_atomic_notifier_call_chain__ returns. */
VORN_API int VornNotifierCallChain(vorn_notifier_chain_s *chain, unsigned long action, void *data,
                                   int nrToCall, int *nrCalls);

VORN_END_DECLS

#endif
