/* Scheduled work: a pool of threads of the library runs work items later, in the order in which
 * they were added.
 *
 *   static vorn_sched_work_s flush;
 *   vorn_sched_init_work(&flush, on_flush, volume); // once
 *   vorn_sched_add_work(&flush);                    // each time the item must run
 *
 * The caller owns a work item and must keep it valid while it is queued. A worker removes the item
 * from the queue before it calls the handler, and does not use it after that: the handler may free
 * the item or add it again, and any thread may add it while the handler runs.
 *
 * The pool keeps a reserve of idle workers. When a worker takes an item, it starts others until the
 * minimum is idle; when a worker finishes a run and finds the maximum idle, it ends. There are
 * never more than VORN_SCHED_WORK_THREAD_COUNT workers; items wait while all are busy. The bounds
 * are items of section "VORN" in the registered INI files, which the library reads when it starts
 * the workers: SCHED_THREAD_FREE_NUM_MIN (default and maximum 4) and SCHED_THREAD_FREE_NUM_MAX
 * (default and maximum 8).
 *
 * A handler runs without any lock of the library, with cancellation enabled and deferred. If it
 * calls pthread_exit(3) or is cancelled, its worker ends and another one replaces it.
 *
 * Any thread, also one that runs a handler, may call any function. None is safe in a signal
 * handler, and none is a cancellation point. Unless a function says otherwise, it blocks only on
 * short locks and on the log, and returns 0, or logs an error and returns -1.
 *
 * A child of fork() begins with an empty pool: only the parent runs the items that were queued at
 * the fork, and the child may add its copies again. The first add in the child starts workers. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SCHED_WORK_H
#define VORN_SCHED_WORK_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* Maximum number of workers, and number of slots in the time-limit table. */
#define VORN_SCHED_WORK_THREAD_COUNT 64u

/* Minimum time limit in seconds. */
#define VORN_SCHED_WORK_TIMEOUT_MIN 15u

/* The result of vorn_sched_delete_work for an item that is not queued. */
#define VORN_SCHED_WORK_NOT_QUEUED (-55)

struct vorn_sched_work;

/* Runs a work item, in a thread of the pool. */
typedef void (*vorn_sched_work_f)(struct vorn_sched_work *work);

/* A work item. A handler may read and change only pData. */
typedef struct vorn_sched_work {
  int32_t pid;               /* id of the process that initialised it */
  uint32_t timeout;          /* time limit of a run in seconds; 0: none */
  vorn_list_head_s node;     /* in the queue; poisoned while it is not queued */
  void *pData;               /* the caller's */
  vorn_sched_work_f handler; /* if NULL, a run logs an error */
} vorn_sched_work_s;

/* --- Work items --- */

/* Makes *work a work item that is not queued and has no time limit.
 *   work: the work item
 *   handler: function that runs the item
 *   data: value for pData
 * Returns the process id. */
VORN_API int vorn_sched_init_work(vorn_sched_work_s *work, vorn_sched_work_f handler, void *data);

/* Sets the time limit of the runs of *work, from the next run on. A limit above 2^32 ticks (198
 * days) counts as 2^32 ticks.
 *   work: the work item
 *   seconds: time limit in seconds
 * Returns 0; logs an error and returns -1 if seconds is below VORN_SCHED_WORK_TIMEOUT_MIN or work
 * is NULL. */
VORN_API int vorn_set_sched_work_timeout(vorn_sched_work_s *work, uint32_t seconds);

/* Queues *work; starts the pool if it is not started. If the pool is being destroyed, logs an error
 * but still queues the item; new workers run it after the destroy. Blocks on another caller's start
 * of the pool.
 *   work: the work item
 * Returns the result of waking a worker, which is 0 or the positive errno of vorn_sem_enhance_up;
 * the item is queued in both cases. Logs an error and returns -1 if work is NULL or already queued,
 * or if no worker could be started. */
VORN_API int vorn_sched_add_work(vorn_sched_work_s *work);

/* Removes *work from the queue, so that it does not run.
 *   work: the work item
 * Returns 0; VORN_SCHED_WORK_NOT_QUEUED without a log message if the item is not queued, because it
 * was not added or a worker has taken it. Logs an error and returns -1 if work is NULL or the pool
 * has not been started. */
VORN_API int vorn_sched_delete_work(vorn_sched_work_s *work);

/* --- The pool --- */

/* Starts the workers if they are not started. vorn_Init and the first add call this function.
 * Returns 0; logs an error and returns -1 if a worker could not be started; the next call starts
 * the missing ones. */
VORN_API int sched_work_init(void);

/* Destroys the pool: removes all queued items without notice to their owners, which may add them
 * again, and ends the idle workers. Running handlers continue, and their workers end after them.
 * Sleeps 10 ms, and another 10 ms for each idle worker. The next add starts the pool again.
 * Returns 0, also if the pool is not started. vorn_destory calls this function. */
VORN_API int sched_work_destroy(void);

/* --- Supervision ---
 *
 * The time-limit table has a slot for each worker. While a worker runs an item with a time limit,
 * its slot holds the start, the limit and the process id of the run. Times are in ticks of 4 ms
 * (vorn_jiffies.h). */

/* Assigns the first free slot to the thread with kernel id tid.
 *   tid: kernel id of the thread
 *   index: where the number of the slot goes
 * Returns 0; logs an error and returns -1 if no slot is free or index is NULL. */
VORN_API int vorn_add_sched_work_timeout_check(uint32_t tid, uint32_t *index);

/* Stores a run in the slot. A start of 0 means no run. Does nothing, without a log message, if
 * index is not the number of a slot.
 *   index: number of the slot
 *   start: tick at which the run began, 0 for no run
 *   limit: time limit in ticks
 *   pid: process id of the work item */
VORN_API void vorn_update_sched_work_timeout_info(uint32_t index, uint64_t start, uint32_t limit,
                                                  uint32_t pid);

/* Frees the slot. Logs an error if index is not the number of a slot.
 *   index: number of the slot */
VORN_API void vorn_del_sched_work_timeout_check(uint32_t index);

/* Looks for a run that has exceeded its time limit. Logs a warning about the first one, and the
 * stack bounds of its thread.
 * Returns 1 if there is one; otherwise, 0. */
VORN_API int vorn_sched_work_timeout_theck(void);

/* Checks whether the pool is stalled: as many runs as the maximum number of workers are in
 * progress, and none has begun for 45000 ticks (180 seconds) since the first call that found the
 * pool in this state. If so, logs an error for each of the first four workers, and the stack bounds
 * of each.
 * Returns 1 if it is stalled; otherwise, 0. */
VORN_API int vorn_is_all_work_timeout(void);

/* The part of the health framework's data that the check of a heal task uses. */
typedef struct vorn_sched_work_heal_result {
  uint32_t outcome; /* 1: the stall check returned 0; 0: it returned 1 */
} vorn_sched_work_heal_result_s;

/* A heal task: a check that a health framework outside the library calls. */
typedef struct vorn_sched_work_heal_task {
  char name[32];                                        /* "vorn_schedwork_timeout_check" */
  void (*check)(vorn_sched_work_heal_result_s *result); /* the framework calls it */
  void *unused[2];                                      /* NULL */
  uint32_t settings[3]; /* 1, 5, 5; the framework defines their meaning */
  uint32_t reserved;    /* 0 */
} vorn_sched_work_heal_task_s;

/* The check of the pool: looks for a run that has exceeded its time limit, then for a stall of the
 * pool, and stores the outcome. If result is NULL, only logs an error.
 *   result: where the outcome goes */
VORN_API void vorn_heal_check_callback(vorn_sched_work_heal_result_s *result);

/* Initialises the pool's heal task. The start of the pool calls this function. */
VORN_API void vorn_init_sched_work_heal_task_info(void);

/* Stores the address of the heal task, which the library owns, and the number of tasks, 1.
 *   task: where the address of the heal task goes
 *   count: where the number of tasks goes
 * Returns 0; logs an error and returns -1 if task or count is NULL. */
VORN_API int vorn_get_sched_work_heal_task_info(vorn_sched_work_heal_task_s **task,
                                                uint32_t *count);

/* Logs the work item whose field node is given, with its addresses as function names
 * (vorn_symbol.h).
 *   node: field node of a work item */
VORN_API void VornSchedWorkShow(vorn_list_head_s *node);

/* Logs the name and the stack bounds of the thread of this process with kernel id tid, if it has a
 * thread record.
 *   tid: kernel id of the thread */
VORN_API void sched_work_dump_thread_stack(uint32_t tid);

/* --- The steps of the pool, for a caller that replaces one --- */

/* Reads the bounds on idle workers. */
VORN_API void sched_work_thread_num_set(void);

/* Starts workers until the minimum is idle or the maximum exists.
 * Returns 0; logs an error and returns -1 if a worker could not be started. */
VORN_API int sched_work_create_thread(void);

/* The thread function of a worker. argument is the generation of the pool to which the worker
 * belongs, from 0 on; each destroy begins the next generation.
 *   argument: generation of the pool
 * Returns NULL. */
VORN_API void *sched_work_thread(void *argument);

/* Removes the first work item from the queue.
 * Returns the work item; NULL if there is none. */
VORN_API vorn_sched_work_s *sched_work_select_task(void);

/* Runs the work item, with its time limit stored in the slot.
 *   work: the work item
 *   slot: number of the worker's slot */
VORN_API void sched_work_run_task(vorn_sched_work_s *work, uint32_t slot);

VORN_END_DECLS

#endif
