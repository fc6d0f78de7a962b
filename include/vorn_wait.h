/* Wait queues in the style of the Linux kernel: threads wait for a condition, and the thread that
 * makes it true wakes all of them.
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
 * The waker makes the condition true and calls __wake_up. The waiters and the waker must
 * synchronise their accesses to the condition, with atomics or a lock.
 *
 * Unless a function says otherwise, any thread may call it, and it blocks only on the queue's spin
 * lock. None is a cancellation point: if a thread is cancelled while it waits, the cancellation is
 * still pending after finish_wait. None is safe in a signal handler. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_WAIT_H
#define VORN_WAIT_H

#include "vorn_api.h"
#include "vorn_list.h"
#include "vorn_spinlock.h"

VORN_BEGIN_DECLS

/* A queue. It must stay valid until each call of __wake_up has returned, even if the waiters have
 * already left. */
typedef struct vorn_wait_queue_head {
  vorn_spinlock_s lock;   /* guards the list and its entries */
  vorn_list_head_s queue; /* the entries, the newest first */
} vorn_wait_queue_head_s;

/* The entry of a waiter in a queue, usually on the waiter's stack. It may be freed after
 * finish_wait has returned. */
typedef struct vorn_wait_entry {
  uint32_t tid;          /* the waiter's kernel id */
  uint32_t flag;         /* the word on which it sleeps: 1 while it waits, 0 after its wake-up */
  int (*callback)(void); /* for the caller; the library does not call it */
  vorn_list_head_s node; /* points to itself while not queued */
} vorn_wait_entry_s;

/* Makes *entry an entry of the thread with kernel id tid (gettid(2)) that is not in a queue.
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

/* Prepares the calling thread to wait: puts its entry at the front of the queue, unless it is
 * already in the queue, and sets the flag. From then on, a __wake_up ends the wait.
 *   head: the queue
 *   entry: the waiter's entry
 * Returns 0. */
VORN_API int prepare_to_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry);

/* Sleeps until the entry's flag is 0, for at most 250 ticks (vorn_wait_interruptible). A signal
 * also ends the sleep.
 *   entry: the waiter's entry
 * Returns what vorn_wait_interruptible returns. */
VORN_API int sched_wait(vorn_wait_entry_s *entry);

/* Sleeps until the entry's flag is 0, for at most timeout ticks (vorn_wait_comm). A signal also
 * ends the sleep.
 *   entry: the waiter's entry
 *   timeout: maximum number of ticks to wait
 * Returns what vorn_wait_comm returns. */
VORN_API uint64_t sched_wait_timeout(vorn_wait_entry_s *entry, int64_t timeout);

/* Removes the entry from the queue, if it is in it. While another thread holds the lock, sleeps for
 * 10 us at a time.
 *   head: the queue
 *   entry: the waiter's entry */
VORN_API void finish_wait(vorn_wait_queue_head_s *head, vorn_wait_entry_s *entry);

/* Wakes every thread in the queue and empties the queue.
 *   head: the queue */
VORN_API void __wake_up(vorn_wait_queue_head_s *head);

/* Does nothing. */
VORN_API void before_wait(void);

/* Does nothing. A value for vorn_wait_entry_s::callback.
 * Returns 0. */
VORN_API int autoremove_wake_function(void);

VORN_END_DECLS

#endif
