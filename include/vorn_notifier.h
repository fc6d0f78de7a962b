/* Notifier chains: callbacks in the order of their priorities, which a producer of events calls
 * with an action and data.
 *
 *   static vorn_notifier_chain_s chain = VORN_NOTIFIER_CHAIN_INIT("events");
 *   static vorn_notifier_block_s block = {on_event, NULL, 10};
 *
 *   vorn_atomic_notifier_chain_register(&chain, &block);
 *   vorn_atomic_notifier_call_chain__(&chain, 1, &event, -1, NULL);
 *
 * A block belongs to its caller and stays in place while it is registered. The chain's spin lock is
 * held for each registration and for the whole of a call, callbacks included: a callback must not
 * register or unregister on the chain that calls it, and should not take long, since the calls on a
 * chain wait for one another, and fork() waits for them.
 *
 * Any thread may call. Only VornNotifierCallChain is for signal handlers. None is a cancellation
 * point; the callbacks run with cancellation disabled while the lock is held. Every registration
 * and every call is written to the log as information. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_NOTIFIER_H
#define VORN_NOTIFIER_H

#include "vorn_api.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

struct vorn_notifier_block;

/* A callback: its block, and the action and data of the call. With VORN_NOTIFIER_STOP in its result
 * no further block is called. */
typedef int (*vorn_notifier_f)(struct vorn_notifier_block *block, unsigned long action, void *data);

/* The bit of a callback's result that ends the call. */
#define VORN_NOTIFIER_STOP 0x8000

/* A block of a chain. */
typedef struct vorn_notifier_block {
  vorn_notifier_f notifier_call; /* not NULL */
  struct vorn_notifier_block
      *next;         /* written by the library; kept when the block is unregistered */
  uint32_t priority; /* the larger ones are called first */
} vorn_notifier_block_s;

/* A chain. */
typedef struct vorn_notifier_chain {
  const char *name;            /* for the log; borrowed */
  vorn_spinlock_s lock;        /* of the list */
  vorn_notifier_block_s *head; /* the first block, NULL: none */
} vorn_notifier_chain_s;

/* An empty chain, to initialise a variable with. */
#define VORN_NOTIFIER_CHAIN_INIT(name)                                                             \
  { (name), VORN_SPINLOCK_INIT, NULL }

/* Registers a block in the caller's name.
 *   chain: the chain
 *   block: block to put on the chain
 * Returns what vorn_atomic_notifier_chain_register__ returns. */
#define vorn_atomic_notifier_chain_register(chain, block)                                          \
  vorn_atomic_notifier_chain_register__(chain, block, __FILE__, __LINE__)

/* Takes a block off the chain in the caller's name.
 *   chain: the chain
 *   block: block to take off the chain
 * Returns what vorn_atomic_notifier_chain_unregister__ returns. */
#define vorn_atomic_notifier_chain_unregister(chain, block)                                        \
  vorn_atomic_notifier_chain_unregister__(chain, block, __FILE__, __LINE__)

/* Registers a block, after those of its own priority. file and line name the caller. A block that
 * is on a chain must not be registered again: this is not checked.
 *   chain: the chain
 *   block: block to put on the chain or to take off it
 *   file: source file of the caller
 *   line: line of the caller
 * Returns 0; does nothing when chain or block is NULL. */
VORN_API int vorn_atomic_notifier_chain_register__(vorn_notifier_chain_s *chain,
                                                   vorn_notifier_block_s *block, const char *file,
                                                   int line);

/* Takes a block off the chain; no callback of it runs after that.
 *   chain: the chain
 *   block: block to put on the chain or to take off it
 *   file: source file of the caller
 *   line: line of the caller
 * Returns 0, also when chain or block is NULL; -2 when the block is not on the chain. */
VORN_API int vorn_atomic_notifier_chain_unregister__(vorn_notifier_chain_s *chain,
                                                     vorn_notifier_block_s *block, const char *file,
                                                     int line);

/* Calls at most nrToCall blocks of the chain, a negative number: all, under the chain's lock. Adds
 * the number of calls to *nrCalls unless it is NULL.
 *   chain: the chain
 *   action: action for the callbacks
 *   data: data for the callbacks
 *   nrToCall: most blocks to call, negative for all
 *   nrCalls: counter to add the number of calls to, or NULL
 * Returns the last callback's result; 0 when none ran or chain is NULL. */
VORN_API int vorn_atomic_notifier_call_chain__(vorn_notifier_chain_s *chain, unsigned long action,
                                               void *data, int nrToCall, int *nrCalls);

/* Calls the blocks of a chain as vorn_atomic_notifier_call_chain__ does, without the lock and for
 * any context: the caller sees to it that no other thread changes the chain. A callback may
 * unregister its own block.
 *   chain: the chain
 *   action: action for the callbacks
 *   data: data for the callbacks
 *   nrToCall: most blocks to call, negative for all
 *   nrCalls: counter to add the number of calls to, or NULL
 * Returns what vorn_atomic_notifier_call_chain__ returns. */
VORN_API int VornNotifierCallChain(vorn_notifier_chain_s *chain, unsigned long action, void *data,
                                   int nrToCall, int *nrCalls);

VORN_END_DECLS

#endif
