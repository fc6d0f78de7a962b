/* Wait queues in the kernel's style: threads that wait for a condition, and the thread that makes
 * it true wakes all of them.
 *
 *   vorn_wait_entry_s entry;
 *   vorn_wait_entry_init(&entry, (uint32_t)gettid());
 *   for (;;) {
 *     prepare_to_wait(&queue, &entry);
 *     if (condition) break;
 *     sched_wait(&entry);
 *   }
 *   finish_wait(&queue, &entry);
 *
 * The waker makes the condition true and calls __wake_up. What either reads and writes of the
 * condition is theirs to order: by atomics, or a lock.
 *
 * Unless a function says otherwise any thread may call it, and it blocks on the queue's spin lock
 * alone. None is a cancellation point: a thread that is cancelled while it waits finds the
 * cancellation pending after finish_wait. None is for signal handlers. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_WAIT_H
#define VORN_WAIT_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

/* A queue. It must outlive each call of __wake_up, also after the waiters of that have left. */
typedef struct vorn_wait_queue_head {
  vorn_spinlock_s lock;   /* guards the list, and what is in it */
  vorn_list_head_s queue; /* the entries, the latest first */
} vorn_wait_queue_head_s;

/* A waiter's place in a queue, usually on its stack. It may go once finish_wait has returned. */
typedef struct vorn_wait_entry {
  uint32_t tid;          /* the waiter's kernel id */
  uint32_t flag;         /* 1 while it waits, 0 once it has been woken: what it sleeps on */
  int (*callback)(void); /* the caller's; the library does not call it */
  vorn_list_head_s node; /* points at itself while not queued */
} vorn_wait_entry_s;

/* Makes *entry one of the thread with kernel id tid (gettid(2)) that is in no queue.
 *   entry: the waiter's entry
 *   tid: kernel id of the waiting thread */
static inline void vorn_wait_entry_init(vorn_wait_entry_s *entry, uint32_t tid) {
  entry->tid = tid;
  entry->flag = 0;
  entry->callback = NULL;
  vorn_list_init_head(&entry->node);
}

/* Makes *head an empty queue.
 *   head: the queue */
VORN_API void __init_waitqueue_head(vorn_wait_queue_head_s *head);

/* Says that the calling thread is about to wait: puts its entry at the front of the queue, unless
 * it is in it, and sets the flag. A __wake_up from here on ends the wait.
 *   head: the queue
 *   entry: the waiter's entry
 * Returns 0. */
VORN_API int prepare_to_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry);

/* Sleeps until the entry's flag is 0: vorn_wait_interruptible, which takes 250 ticks at most. A
 * signal ends the sleep as well.
 *   entry: the waiter's entry
 * Returns what vorn_wait_interruptible returns. */
VORN_API int sched_wait(vorn_wait_entry_s *entry);

/* Sleeps until the entry's flag is 0: vorn_wait_comm, with timeout in ticks. A signal ends the
 * sleep as well.
 *   entry: the waiter's entry
 *   timeout: most ticks to wait
 * Returns what vorn_wait_comm returns. */
VORN_API uint64_t sched_wait_timeout(vorn_wait_entry_s *entry, int64_t timeout);

/* Takes the entry out of the queue, if it is in it. While another holds the lock it sleeps for 10
 * us at a time.
 *   head: the queue
 *   entry: the waiter's entry */
VORN_API void finish_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry);

/* Wakes every thread of the queue and empties it.
 *   head: the queue */
VORN_API void __wake_up(vorn_wait_queue_head_s *head);

/* Does nothing. */
VORN_API void before_wait(void);

/* For vorn_wait_entry_s::callback.
 * Returns 0. */
VORN_API int autoremove_wake_function(void);

VORN_END_DECLS

#endif
