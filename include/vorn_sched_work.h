/* Scheduled work: records of work that a pool of the library's threads runs later, in the order in
 * which they were added.
 *
 *   static vorn_sched_work_s flush;
 *   vorn_sched_init_work(&flush, on_flush, volume); // once
 *   vorn_sched_add_work(&flush);                    // whenever it is to run
 *
 * A record belongs to the caller, which keeps it alive while it is queued. A worker takes it off
 * the queue before it calls the handler and does not touch it after that: the handler may free it
 * or add it again, and any thread may add it while the handler runs.
 *
 * The pool keeps a reserve of idle workers: with each item that one takes up, others are started up
 * to the minimum, and a worker that finds the maximum idle after its run ends. There are never
 * more than VORN_SCHED_WORK_THREAD_COUNT of them; items wait while all are busy. The bounds are
 * items of section "VORN" of the registered INI files, read when the workers are started:
 * SCHED_THREAD_FREE_NUM_MIN (4, which is also the most) and SCHED_THREAD_FREE_NUM_MAX (8,
 * likewise).
 *
 * Handlers run with no lock of the library held, with cancellation enabled and deferred. One that
 * leaves by pthread_exit(3) or is cancelled ends its worker, which another replaces.
 *
 * Any thread may call any function, a handler too; none is for signal handlers. None blocks but for
 * short locks, the log and what is said there. None is a cancellation point. Functions return 0, or
 * -1 after an error in the log, unless they say otherwise.
 *
 * A child of fork() begins with an empty pool: records that are queued in the parent are the
 * parent's to run, and those of the child can be added again. The first add starts workers. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SCHED_WORK_H
#define VORN_SCHED_WORK_H

#include "vorn_api.h"
#include "vorn_list.h"

VORN_BEGIN_DECLS

/* The most workers, and the slots of the time-limit table. */
#define VORN_SCHED_WORK_THREAD_COUNT 64u

/* The shortest time limit in seconds. */
#define VORN_SCHED_WORK_TIMEOUT_MIN 15u

/* What vorn_sched_delete_work returns for a record that is not queued. */
#define VORN_SCHED_WORK_NOT_QUEUED (-55)

struct vorn_sched_work;

/* Runs the work of the record, in a thread of the pool. */
typedef void (*vorn_sched_work_f)(struct vorn_sched_work *work);

/* A record of work. What a handler may read and change is pData. */
typedef struct vorn_sched_work {
  int32_t pid;               /* of the process that initialised it */
  uint32_t timeout;          /* the time limit of a run in seconds; 0: none */
  vorn_list_head_s node;     /* in the queue; poisoned while it is not queued */
  void *pData;               /* the caller's */
  vorn_sched_work_f handler; /* NULL: a run is an error in the log */
} vorn_sched_work_s;

/* --- Records --- */

/* Makes *work a record that is not queued and has no time limit.
 *   work: the record of work
 *   handler: function that runs the work
 *   data: value for pData
 * Returns the process id. */
VORN_API int vorn_sched_init_work(vorn_sched_work_s *work, vorn_sched_work_f handler, void *data);

/* Gives the runs of *work, from the next on, a time limit in seconds. Limits beyond 2^32 ticks (198
 * days) count as that.
 *   work: the record of work
 *   seconds: time limit in seconds
 * Returns 0; logs an error and returns -1 below VORN_SCHED_WORK_TIMEOUT_MIN and for NULL. */
VORN_API int vorn_set_sched_work_timeout(vorn_sched_work_s *work, uint32_t seconds);

/* Queues *work; starts the pool where it is not. While the pool is being destroyed an error is
 * logged, the record queued all the same, and run by new workers when the destroy is over. Blocks
 * on another caller's start of the pool.
 *   work: the record of work
 * Returns the result of waking a worker, which is 0, or the positive errno of vorn_sem_enhance_up;
 * the record is queued then. Logs an error and returns -1 when work is NULL, or queued already, or
 * no worker could be started. */
VORN_API int vorn_sched_add_work(vorn_sched_work_s *work);

/* Takes *work off the queue, so that it does not run.
 *   work: the record of work
 * Returns 0; VORN_SCHED_WORK_NOT_QUEUED, without a log message, when it is not queued: it was not
 * added, or a worker has it. Logs an error and returns -1 when work is NULL or the pool has not
 * been started. */
VORN_API int vorn_sched_delete_work(vorn_sched_work_s *work);

/* --- The pool --- */

/* Starts the workers unless they are started; vorn_Init and the first add call it.
 * Returns 0; logs an error and returns -1 when one could not be started; the next call goes on from
 * there. */
VORN_API int sched_work_init(void);

/* Ends the pool: drops all queued records, without a word to their owners, which may add them
 * again, and sends the idle workers home. Handlers that run go on, and their workers end after
 * that. Takes 10 ms and as much for each idle worker. The next add starts the pool anew.
 * Returns 0, also when it is not started; vorn_destory calls it. */
VORN_API int sched_work_destroy(void);

/* --- Supervision ---
 *
 * The time-limit table has a slot for each worker with the start, the limit and the process id of
 * the run with a time limit that it is in. Times are ticks of 4 ms (vorn_jiffies.h). */

/* Claims the first free slot for the thread with kernel id tid.
 *   tid: kernel id of the thread
 *   index: where the number of the slot goes
 * Returns 0; logs an error and returns -1 when all are used, or index is NULL. */
VORN_API int vorn_add_sched_work_timeout_check(uint32_t tid, uint32_t *index);

/* Notes a run in the slot; a start of 0 is none. Nothing, without a log message, for an index that
 * is no slot's.
 *   index: number of the slot
 *   start: tick at which the run began, 0 for no run
 *   limit: time limit in ticks
 *   pid: process id of the record */
VORN_API void vorn_update_sched_work_timeout_info(uint32_t index, uint64_t start, uint32_t limit,
                                                  uint32_t pid);

/* Frees the slot. An index that is no slot's is logged as an error.
 *   index: number of the slot */
VORN_API void vorn_del_sched_work_timeout_check(uint32_t index);

/* Looks for a run that has taken longer than its limit: logs a warning of the first one and asks
 * for its stack.
 * Returns 1 when there is one, else 0. */
VORN_API int vorn_sched_work_timeout_theck(void);

/* Looks whether the pool has come to a stand: as many runs as there can be workers are in progress
 * and none has begun for 45000 ticks (180 seconds), counted from the first call that found it so.
 * Logs an error for each of the first four workers and asks for their stacks then.
 * Returns 1 when it has, else 0. */
VORN_API int vorn_is_all_work_timeout(void);

/* What the framework that runs heal tasks hands to their checks; the rest of it is its own. */
typedef struct vorn_sched_work_heal_result {
  uint32_t outcome; /* 1: the stall detector returned 0; 0: it returned 1 */
} vorn_sched_work_heal_result_s;

/* A heal task: a check that a health framework outside the library calls. */
typedef struct vorn_sched_work_heal_task {
  char name[32];                                        /* "vorn_schedwork_timeout_check" */
  void (*check)(vorn_sched_work_heal_result_s *result); /* what the framework calls */
  void *unused[2];                                      /* NULL */
  uint32_t settings[3];                                 /* 1, 5, 5: the framework's */
  uint32_t reserved;                                    /* 0 */
} vorn_sched_work_heal_task_s;

/* The pool's check: looks for a run beyond its limit, then for a stand, and stores the outcome. An
 * error in the log and nothing else when result is NULL.
 *   result: where the outcome goes */
VORN_API void vorn_heal_check_callback(vorn_sched_work_heal_result_s *result);

/* Fills the pool's heal task; the start of the pool does so. */
VORN_API void vorn_init_sched_work_heal_task_info(void);

/* Stores the address of the heal task, which stays the library's, and the number of tasks, 1.
 *   task: where the address of the heal task goes
 *   count: where the number of tasks goes
 * Returns 0; logs an error and returns -1 when task or count is NULL. */
VORN_API int vorn_get_sched_work_heal_task_info(vorn_sched_work_heal_task_s **task,
                                                uint32_t *count);

/* Logs the record whose node is given, with its addresses as functions (vorn_symbol.h).
 *   node: field node of a record of work */
VORN_API void VornSchedWorkShow(vorn_list_head_s *node);

/* Asks for the stack of the thread of this process with kernel id tid: the log gets its name and
 * the bounds of its stack, if the registry knows it.
 *   tid: kernel id of the thread */
VORN_API void sched_work_dump_thread_stack(uint32_t tid);

/* --- The steps of the pool, for a caller that replaces one --- */

/* Reads the bounds on idle workers. */
VORN_API void sched_work_thread_num_set(void);

/* Starts workers until the minimum is idle or the most exist.
 * Returns 0; logs an error and returns -1 when one could not be started. */
VORN_API int sched_work_create_thread(void);

/* A worker: the thread function. argument is the number of the life of the pool that it is for,
 * from 0; each destroy begins the next.
 *   argument: number of the life of the pool
 * Returns NULL. */
VORN_API void *sched_work_thread(void *argument);

/* Takes the first record off the queue.
 * Returns the record; NULL when there is none. */
VORN_API vorn_sched_work_s *sched_work_select_task(void);

/* Runs the record, with its time limit noted in the slot.
 *   work: the record of work
 *   slot: number of the worker's slot */
VORN_API void sched_work_run_task(vorn_sched_work_s *work, uint32_t slot);

VORN_END_DECLS

#endif
