/* Threads: thread records, creation of threads, the pool, scheduling strategies and CPU binding.
 *
 * Every thread that these functions start is detached and has a thread record, a vorn_thread_s,
 * with its name, kernel id, strategy, stacks and context. Thread records are in a table of
 * VORN_THRD_SLOT_COUNT slots, each with a reference count. The library never frees the thread
 * record of a slot, so a thread that looks up another thread by its id and holds the reference may
 * read its thread record even after that thread has ended. If the table is full, a new thread still
 * gets a thread record, but lookups and listings do not find it, and the library frees it when the
 * thread ends. A child of fork() begins with the thread record of the thread that called fork(),
 * and without a pool; the other thread records, and references to them, exist only in the parent.
 *
 * When a thread ends, by return, pthread_exit(3) or cancellation, a destructor of thread-specific
 * data releases its thread record, its slot and its reference to itself. A later destructor that
 * needs a thread record adopts the thread again. A thread must release the references that it took
 * with vorn_thrd_getthreadinfobytid.
 *
 * Unless a function says otherwise, any thread may call it, it blocks only in the allocator, it is
 * not a cancellation point, it is not safe in a signal handler, and it returns 0, or logs an error
 * and returns -1. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_THRD_H
#define VORN_THRD_H

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Maximum number of threads that lookups and listings can find. */
#define VORN_THRD_SLOT_COUNT 1024u

/* Size of a name in bytes, with its NUL. */
#define VORN_THRD_NAME_SIZE 16

/* Size of each thread's alternate signal stack in bytes. */
#define VORN_THRD_SIGSTACK_SIZE 65536u

/* Number of CPUs that a CPU set for binding has room for. */
#define VORN_THRD_CPU_COUNT 1024u

/* Number of 64-bit words in a CPU set for binding; CPU n is bit n. */
#define VORN_THRD_CPUSET_WORDS 16

/* Size of a CPU set for binding in bytes. */
#define VORN_THRD_CPUSET_SIZE 128u

/* The scheduling strategies; VORN_THRD_STRATEGY_NONE is the value of vorn_thread_s::strategy until
 * one is applied. */
enum {
  VORN_THRD_STRATEGY_DEFAULT = 0,
  VORN_THRD_STRATEGY_CRITICAL = 1,
  VORN_THRD_STRATEGY_CTRL = 2,
  VORN_THRD_STRATEGY_MANAGE = 3,
  VORN_THRD_STRATEGY_IO = 4,
  VORN_THRD_STRATEGY_BACKGROUND = 5,
  VORN_THRD_STRATEGY_COUNT = 6,
  VORN_THRD_STRATEGY_NONE = -1
};

/* The values of vorn_thread_s::context. */
enum {
  VORN_THRD_CONTEXT_NORMAL = 0,
  VORN_THRD_CONTEXT_IOD = 1, /* dispatches I/O */
  VORN_THRD_CONTEXT_IRQ = 2  /* acts for an interrupt */
};

/* A thread function. Its result is ignored unless the thread has a handle: threads are detached. */
typedef void *(*vorn_thrd_entry_f)(void *argument);

/* Number of switches in a trace. */
#define VORN_THRD_SWITCH_COUNT 3

/* Number of return addresses that a trace holds for each switch. */
#define VORN_THRD_SWITCH_DEPTH 9

/* A switch of a thread from one LWP instance to another (vorn_lwp.h). */
typedef struct vorn_thrd_switch {
  uint64_t old_id;                                 /* the instance that the thread left */
  uint64_t new_id;                                 /* the instance that it entered */
  unsigned long addresses[VORN_THRD_SWITCH_DEPTH]; /* return addresses, the innermost first */
} vorn_thrd_switch_s;

/* The last switches of a thread. */
typedef struct vorn_thrd_switch_trace {
  uint64_t count; /* number of switches so far */
  vorn_thrd_switch_s
      entries[VORN_THRD_SWITCH_COUNT]; /* switch n is entry n mod VORN_THRD_SWITCH_COUNT */
} vorn_thrd_switch_trace_s;

/* A slot in the table of threads; private to the library. */
struct vorn_thrd_slot;

/* A thread record. Only the thread itself changes it; another thread may read it while it holds a
 * reference. The thread writes tid and strategy as whole words, so that a reader sees either the
 * old or the new value. It writes the name as two words: a reader may see halves of two names. */
typedef struct vorn_thread {
  struct vorn_thrd_slot *slot;    /* NULL if not in the table */
  pthread_t handle;               /* of a pool thread */
  vorn_thrd_entry_f entry;        /* the thread function; in a pool thread its job, NULL if idle */
  void *argument;                 /* its argument */
  char name[VORN_THRD_NAME_SIZE]; /* "[NULL]" until vorn_thrd_setname */
  int64_t tid;                    /* the kernel's thread id, 0 until the thread has started */
  int32_t pid;                    /* the process id */
  int32_t strategy;               /* VORN_THRD_STRATEGY_* */
  uint32_t context;               /* VORN_THRD_CONTEXT_* */
  uint32_t iod_thread_id;         /* all bits set: none */
  unsigned long os_stack_low;     /* the usable stack; both are 0 if unknown */
  unsigned long os_stack_high;    /* the address after its end */
  unsigned char *sig_stack;       /* VORN_THRD_SIGSTACK_SIZE bytes */
  sem_t job;                      /* posted once for each job of a pool thread */
  uint32_t preempt_flag;          /* 0: may be preempted */
  uint32_t pooled;                /* 1: a thread of the pool */
  uint64_t jobs;                  /* number of jobs that a pool thread has run */
  uint64_t
      cpuset[VORN_THRD_CPUSET_WORDS]; /* the CPUs that the thread last bound itself to; 0: none */
  vorn_thrd_switch_trace_s switch_trace; /* switches between LWP instances */
} vorn_thread_s;

/* --- Thread records --- */

/* Returns the calling thread's thread record; NULL if it has none because the library neither
 * created nor adopted the thread. Signal-safe. */
VORN_API vorn_thread_s *vorn_thrd_currentthreadinfo(void);

/* Returns the thread record of the running thread whose kernel id is tid, with a reference that the
 * caller releases with vorn_thrd_putthreadinfo; NULL without a log message if no thread in the
 * table has this id. Signal-safe.
 *   tid: kernel id of the thread */
VORN_API vorn_thread_s *vorn_thrd_getthreadinfobytid(long tid);

/* Releases a reference from vorn_thrd_getthreadinfobytid. Do not use the thread record after this
 * call. Frees a thread record that has no slot.
 *   thread: thread record to release
 * Returns the number of references left; logs an error and returns 0 if there was none. Signal-safe
 * for a thread record from vorn_thrd_getthreadinfobytid. */
VORN_API int vorn_thrd_putthreadinfo(vorn_thread_s *thread);

/* Adopts the calling thread, which the library did not create: gives it a thread record, a signal
 * stack and strategy 0. Does nothing if the thread has a thread record. The thread releases its
 * thread record when it ends, or earlier with vorn_thrd_clearcurthreadinfo.
 * Returns 0; logs information and returns -1 if memory runs out. */
VORN_API int vorn_thrd_setcurthreadinfo(void);

/* Releases the calling thread's thread record before the thread ends.
 * Returns 0; -1 if the thread has none. */
VORN_API int vorn_thrd_clearcurthreadinfo(void);

/* Prepares the thread registry, once per process. Every function that needs the registry calls this
 * function, and so does vorn_Init.
 * Returns 0. If the process has no key of thread-specific data left, logs an error: threads then
 * release their thread records only when they return from their entry function, and the next call
 * tries again. */
VORN_API int vorn_thrd_module_init(void);

/* Lists the threads of the table through print, with kernel id, name and strategy.
 *   print: function that each line goes through
 * Returns 0; -1 if print is NULL. */
VORN_API int vorn_thrd_list(vorn_print_f print);

/* Asks the kernel module to report the state of thread tid. Without the module, only logs
 * information.
 *   tid: kernel id of the thread */
VORN_API void vorn_thrd_getstatus(unsigned int tid);

/* --- Ids and names --- */

/* Returns the calling thread's kernel id (gettid(2)). Signal-safe. */
VORN_API long vorn_thread_get_knl_tid(void);

/* Sets the process id (getpid(2)) that vorn_thrd_getpid_accl returns. A value of 0 or less counts
 * as not set. In a child of fork() the value is not set. Signal-safe.
 *   pid: the process id */
VORN_API void vorn_thrd_setpid_accl(pid_t pid);

/* Returns the cached process id. Asks the system only if the value is not set. Signal-safe. */
VORN_API pid_t vorn_thrd_getpid_accl(void);

/* Sets the thread id that vorn_thrd_gettid_accl returns. A value with all bits set counts as not
 * set. In a child of fork() the value is not set. Signal-safe.
 *   thread: the thread */
VORN_API void vorn_thrd_settid_accl(pthread_t thread);

/* Returns the cached thread id. There is one for the whole process: the id that was set, or that of
 * the first thread that called this function. For the id of the calling thread, use
 * pthread_self(3). Signal-safe. */
VORN_API pthread_t vorn_thrd_gettid_accl(void);

/* Sets the name of the calling thread, in its thread record and in the kernel (PR_SET_NAME of
 * prctl(2)). Cuts the name to 15 characters. If format is NULL or the thread has no thread record,
 * only logs an error.
 *   format: printf format
 *   ...: values of the format */
VORN_API void vorn_thrd_setname(const char *format, ...) VORN_PRINTF(1, 2);

/* Returns the calling thread's name, valid as long as its thread record; NULL if it has none.
 * Signal-safe. */
VORN_API const char *vorn_thrd_getname(void);

/* Copies the process's name, with its NUL, to the len bytes at buf; 32 bytes are always enough.
 * Reads the name from /proc/PID/status, once. Blocks on /proc.
 *   buf: where the name goes
 *   len: bytes at buf
 * Returns 0; logs an error and returns -1 if buf is NULL, or the name cannot be read or does not
 * fit. */
VORN_API int vorn_get_process_name(char *buf, unsigned int len);

/* Copies the file name of the process's executable, as vorn_get_process_name copies the process's
 * name.
 *   buf: where the name goes
 *   len: bytes at buf
 * Returns what vorn_get_process_name returns. */
VORN_API int vorn_get_process_exe_name(char *buf, unsigned int len);

/* --- The calling thread --- */

/* Lets the other threads of this CPU run first: sched_yield(2). */
VORN_API void vorn_thrd_yield(void);

/* Returns the CPU that vorn_sched_setaffinity or vorn_thrd_core_set stored for the calling thread;
 * otherwise, the CPU on which the thread is running (sched_getcpu(3)). Signal-safe. */
VORN_API int smp_processor_id(void);

/* Stores the CPU of the calling thread without binding the thread. A negative number means none, as
 * in a new thread. Signal-safe.
 *   core: number of the CPU, negative for none */
VORN_API void vorn_thrd_core_set(int core);

/* Stores the NUMA node of the calling thread without binding the thread. A negative number means
 * none, as in a new thread. Signal-safe.
 *   node: number of the NUMA node, negative for none */
VORN_API void vorn_thrd_numaId_set(int node);

/* Returns the stored NUMA node of the calling thread; -1 in a new thread. Signal-safe. */
VORN_API int vorn_thrd_numaId_get(void);

/* Marks the calling thread as an I/O dispatcher with this id. Does nothing if the thread has no
 * thread record. Signal-safe.
 *   id: id for the thread */
VORN_API void vorn_thread_run_in_iod_context_init(unsigned int id);

/* Returns whether the calling thread is an I/O dispatcher; 0 if it has no thread record.
 * Signal-safe. */
VORN_API int vorn_thread_run_in_iod_context_check(void);

/* Returns the I/O dispatcher id of the calling thread; 0 if it has no thread record.
 * Signal-safe. */
VORN_API unsigned int vorn_thread_iod_thread_id_get(void);

/* Saves the context of the calling thread in *saved and sets the context to interrupt, until
 * vorn_thread_run_in_irq_context_restore. Does nothing if the thread has no thread record.
 * Signal-safe.
 *   saved: where the context goes */
VORN_API void vorn_thread_run_in_irq_context_save(unsigned int *saved);

/* Restores the context that vorn_thread_run_in_irq_context_save saved. Does nothing if the thread
 * has no thread record. Signal-safe.
 *   saved: context to restore */
VORN_API void vorn_thread_run_in_irq_context_restore(unsigned int saved);

/* Returns whether the context of the calling thread is interrupt; 0 if it has no thread record.
 * Signal-safe. */
VORN_API int vorn_thread_run_in_irq_context_check(void);

/* --- Stacks --- */

/* Stores the bounds of the calling thread's stack: the lowest address and the address after the
 * highest. Signal-safe.
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns 0; -1 without a log message if they are unknown. */
VORN_API int vorn_thrd_getosstack(unsigned long *low, unsigned long *high);

/* Stores the bounds of the calling thread's signal stack, as vorn_thrd_getosstack does for its
 * stack. Signal-safe.
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns what vorn_thrd_getosstack returns. */
VORN_API int vorn_thrd_getsigstack(unsigned long *low, unsigned long *high);

/* Stores the bounds of the stack of the thread with kernel id tid. Signal-safe.
 *   tid: kernel id of the thread
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns 0; -1 without a log message if they are unknown. */
VORN_API int vorn_thread_get_specific_stack(long tid, unsigned long *low, unsigned long *high);

/* Functions that know the stacks of light-weight threads. The library may call both in a signal
 * handler. */
typedef struct vorn_lwt_stack_ops {
  int (*is_lwt_stack)(unsigned long address); /* 0: it is in one */
  int (*get_lwt_stack)(unsigned long address, unsigned long *low,
                       unsigned long *high); /* 0: the bounds are found */
} vorn_lwt_stack_ops_s;

/* Copies *ops and registers both functions.
 *   ops: the two functions
 * Returns 0; -1 without a log message if ops is NULL. */
VORN_API int register_lwt_stack_ops(const vorn_lwt_stack_ops_s *ops);

/* Unregisters both functions. */
VORN_API void unregister_lwt_stack_ops(void);

/* Calls the registered function is_lwt_stack. Signal-safe.
 *   address: address to look at
 * Returns the result of is_lwt_stack; -1 if none is registered. */
VORN_API int vorn_thrd_islwtstack(unsigned long address);

/* Calls the registered function get_lwt_stack. Signal-safe.
 *   address: address to look at
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns the result of get_lwt_stack; -1 if none is registered. */
VORN_API int vorn_thrd_getlwtstack(unsigned long address, unsigned long *low, unsigned long *high);

/* Finds which of the calling thread's stacks contains address. Stores the bounds of the stack, and
 * in *kind its kind: "LWT_STACK", "OS_STACK" (also for the page below the stack), "SIG_STACK", or
 * "UNKNOWN_STACK" for an address closely above the caller's frame on a stack that the library does
 * not know. The library assumes that an unknown stack begins at the page of address and is
 * vorn_thrd_getunknownstacksize bytes long. Signal-safe.
 *   address: address to look at
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 *   kind: where the kind of the stack goes
 * Returns 0; -1 without a log message if kind is NULL, or if no stack contains address; *kind is
 * then "INVALID_STACK" or "INVALID_LWT_STACK". */
VORN_API int vorn_thrd_getcurrentstack(unsigned long address, unsigned long *low,
                                       unsigned long *high, const char **kind);

/* Sets the assumed size in bytes of a stack with unknown bounds; the default is 8192. Signal-safe.
 *   size: size in bytes */
VORN_API void vorn_thrd_setunknownstacksize(unsigned long size);

/* Returns the assumed size in bytes of a stack with unknown bounds. Signal-safe. */
VORN_API unsigned long vorn_thrd_getunknownstacksize(void);

/* Stores count return addresses of the calling thread, the innermost first. With skip 0 the first
 * address is in the function that called this one; a larger skip omits that many calls. If the
 * stack has fewer addresses, stores 0 after them.
 *   addresses: where the return addresses go
 *   count: number of addresses to store
 *   skip: number of calls to omit
 * Returns 0; -1 if addresses is NULL or the stack has none. The function finds the addresses with
 * frame pointers, and stops at a function that was built without them. Signal-safe. */
VORN_API int vorn_thrd_backtrace(unsigned long *addresses, unsigned int count, unsigned int skip);

/* --- Creation --- */

/* Runs entry(argument) in an idle thread of the pool; if there is none, in a new thread with
 * strategy 0. Stores the thread's id in *out unless out is NULL; the thread may already have ended
 * when the function returns.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns 0, and entry then runs exactly once; on failure, logs a message and returns -1. */
VORN_API int vorn_thrd_create(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Starts a new thread that runs entry(argument), as vorn_thrd_create does, but never uses the pool.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int create_thread_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Does what create_thread_raw does.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int vorn_thread_create_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Starts a thread as vorn_thrd_create does. A new thread has a stack of 131072 bytes if the
 * instant-map flag is set.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Starts a new thread with these attributes (default attributes if NULL), changed to detached, and
 * without a strategy.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 *   attr: attributes of the thread, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int vorn_thrd_create_attr(vorn_thrd_entry_f entry, void *argument, pthread_t *out,
                                   pthread_attr_t *attr);

/* Starts a new thread that runs start_routine with its thread record, a vorn_thread_s *, as
 * argument. The thread record holds entry and argument, and start_routine must release it. The
 * other functions use this one.
 *   entry: function to run
 *   argument: its argument
 *   start_routine: function that gets the thread record
 *   out: where the id goes, or NULL
 *   attr: attributes of the thread, or NULL
 * Returns 0; logs an error and returns -1 if the thread cannot be started. */
VORN_API int create_thread_raw_base(vorn_thrd_entry_f entry, void *argument,
                                    vorn_thrd_entry_f start_routine, pthread_t *out,
                                    pthread_attr_t *attr);

/* Initialises attributes: pthread_attr_init(3).
 *   attr: the attributes
 * Returns 0; -1 without a log message if attr is NULL or the call fails. */
VORN_API int vorn_thrd_attr_init(pthread_attr_t *attr);

/* Destroys attributes: pthread_attr_destroy(3).
 *   attr: the attributes
 * Returns 0; -1 without a log message if attr is NULL or the call fails. */
VORN_API int vorn_thrd_attr_destroy(pthread_attr_t *attr);

/* Sets the stack size in bytes: pthread_attr_setstacksize(3).
 *   attr: the attributes
 *   size: size in bytes
 * Returns 0; -1 without a log message if attr is NULL or the call fails. */
VORN_API int vorn_thrd_setstacksize(pthread_attr_t *attr, size_t size);

/* Sets the instant-map flag: create_thread_nopreempt_raw starts its threads with small stacks from
 * now on. */
VORN_API void vorn_set_instant_map_flag(void);

/* Returns 1 after vorn_set_instant_map_flag has been called; before that, 0. */
VORN_API int vorn_get_instant_map_flag(void);

/* --- Waiting for a thread ---
 *
 * A handle lets other threads wait for the end of a thread's function, and passes them its result.
 * It is not the thread record, which may still be in the table when a wait returns: the thread
 * releases it, and runs its destructors of thread-specific data, after its function. A thread of
 * the pool keeps its thread record.
 *
 * In a child of fork(), a handle that the child inherited from its parent tells the result of a
 * function that had ended before. The child cannot wait for a thread that exists only in the
 * parent: vorn_thrd_wait_handle then fails. If the thread itself called fork(), it exists in both
 * processes, and each can wait for its own. Parent and child each give back their handle.
 *
 * These functions are additions (docs/compatibility.md). */

/* A handle of a thread; private to the library. */
typedef struct vorn_thrd_handle vorn_thrd_handle_s;

/* Runs entry(argument) as vorn_thrd_create does, and stores a handle of the thread in *out.
 *   entry: function to run
 *   argument: its argument
 *   out: where the handle goes, which the caller gives back with vorn_thrd_put_handle
 * Returns 0, and entry then runs exactly once. Logs an error and returns -1 if entry or out is
 * NULL, or if the thread cannot be started; *out stays unchanged. */
VORN_API int vorn_thrd_create_handle(vorn_thrd_entry_f entry, void *argument,
                                     vorn_thrd_handle_s **out);

/* Waits until the thread's function has ended: by return, pthread_exit(3) or cancellation. All that
 * the function did, and all clean-up handlers that it pushed, happens before the return of the
 * wait: the caller sees every effect in memory. The result is what the function returned, or
 * PTHREAD_CANCELED if the thread was cancelled or called pthread_exit(3), whose value is lost. Any
 * number of threads may wait for a thread, each any number of times, until the handle is given
 * back. A signal does not end the wait.
 *   handle: handle of the thread
 *   timeout_ms: longest wait in milliseconds on CLOCK_MONOTONIC; 0 does not wait, -1 waits forever
 *   result: where the result goes, or NULL
 * Returns 0; 1 without a log message if the time ran out. Logs an error and returns -1 if handle is
 * NULL, timeout_ms is less than -1, the calling thread is the thread itself, the thread exists only
 * in the parent of this process, or the system refuses to wait. Leaves *result unchanged unless it
 * returns 0. */
VORN_API int vorn_thrd_wait_handle(vorn_thrd_handle_s *handle, int timeout_ms, void **result);

/* Gives a handle back. The thread may still run, and also may be the calling thread. No thread may
 * use the handle after this call, or be waiting with it. Ignores NULL.
 *   handle: handle to give back, or NULL */
VORN_API void vorn_thrd_put_handle(vorn_thrd_handle_s *handle);

/* --- The pool --- */

/* Creates the pool of count threads, at most 1024, which wait for jobs. There is one pool per
 * process: a second call logs that and returns 0. When the function returns, a quarter of the
 * threads have been started, and one more, which starts the rest. If no thread could be started,
 * the caller may try again.
 *   count: number of threads
 * Returns the number of threads that have been started. This is less than count unless count is 1:
 * for example, 3 if count is 8. */
VORN_API unsigned int vorn_thread_pool_create(unsigned int count);

/* Runs entry(argument) in an idle thread of the pool. Stores the thread's id in *out unless out is
 * NULL.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns 0; -1 without a log message if there is no pool or none of its threads is idle. Neither
 * locks nor allocates, unless a thread of the pool is missing.
 *
 * Each job starts on a thread that is bound to all CPUs, has strategy 0 and the normal context, has
 * the signal mask of the caller of vorn_thread_pool_create, but with SIGWAKEUP unblocked, and has
 * cancellation enabled and deferred. After a job the thread polls for the next one for 20
 * microseconds before it sleeps.
 *
 * A job may be cancelled, call pthread_exit(3), or release the thread record of its thread: the
 * thread then ends, and another one replaces it in the pool. A cancellation that has not acted when
 * the job ends acts then. A cancellation that arrives later does not affect the next job: the
 * thread ends, and its next job runs on the thread that replaces it. If no thread can be started,
 * the job runs on the thread that ends, which cannot be cancelled again. A later call of this
 * function starts a thread that could not be started. */
VORN_API int create_thread_from_thread_pool(vorn_thrd_entry_f entry, void *argument,
                                            pthread_t *out);

/* Ends all threads of the pool, without replacement; a thread with a job ends after it. Sleeps 10
 * ms. Every job that the pool has accepted still runs.
 * Returns the number of threads that have not ended by then; 0 if there is no pool. The process
 * cannot create another pool. */
VORN_API int vorn_thread_pool_destroy(void);

/* --- Strategy, priority and CPU binding --- */

/* The settings of a strategy. */
typedef struct vorn_thrd_strategy {
  uint32_t prio;       /* the nice value, -20 to 19, as a signed number */
  const char *cpumask; /* list of CPUs, for vorn_cpum_parse_cpumask */
} vorn_thrd_strategy_s;

/* Sets up a strategy. Call it before any thread that uses the strategy starts, because the table
 * has no lock.
 *   strategy: VORN_THRD_STRATEGY_*
 *   settings: nice value and CPUs
 * Returns 0; logs information and returns -1 if there is no such strategy, or if its CPU list is
 * wrong, which leaves the strategy invalid. */
VORN_API int vorn_initThreadStrategy(unsigned int strategy, const vorn_thrd_strategy_s *settings);

/* Applies the nice value and the CPUs of a strategy to the calling thread. If the strategy is not
 * set up, applies strategy 0; if that is not set up either, does nothing.
 *   strategy: VORN_THRD_STRATEGY_*
 * Returns 0; if there is no such strategy, logs information and returns 0; if the system refuses,
 * logs information and returns -1. */
VORN_API int vorn_setCurThreadStrategy(unsigned int strategy);

/* Sets the calling thread's nice value: setpriority(2).
 *   prio: nice value, -20 to 19
 * Returns 0; on failure, logs a warning and returns -1. */
VORN_API int vorn_setCurThreadPrio(int prio);

/* Sets the calling thread's nice value from a level: levels 0 to 4 mean the nice values -20, -15,
 * 0, 10 and 15. Does nothing for another level.
 *   level: 0 to 4, the most urgent first */
VORN_API void vorn_thrd_setprio(unsigned int level);

/* Binds the calling thread to the CPUs of a list that vorn_cpum_parse_cpumask reads.
 *   cpumask: list of CPUs
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_setCurThreadBind(const char *cpumask);

/* Shows the table of strategies through print.
 *   print: function that each line goes through
 * Returns 0; -1 if print is NULL. */
VORN_API int vorn_showThreadStrategyDbg(vorn_print_f print);

/* Binds a thread to the CPUs of a set (pthread_setaffinity_np(3)). Reads one bit for each
 * configured CPU, rounded up to whole bytes, at most VORN_THRD_CPUSET_SIZE bytes. Does nothing if
 * all these bits are 0.
 *   thread: the thread
 *   cpuset: set of CPUs
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_thrd_setbindcpu(pthread_t thread, const unsigned char *cpuset);

/* Binds the calling thread to all configured CPUs.
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_thrd_bindAllCfgCpu(void);

/* Stores the CPUs to which a thread is bound (pthread_getaffinity_np(3)).
 *   thread: the thread
 *   set: where the CPUs go
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_thrd_getbindcpu(pthread_t thread, cpu_set_t *set);

/* Stores the CPUs to which the main thread of process pid is bound (sched_getaffinity(2)); if pid
 * is 0, those of the calling thread.
 *   pid: the process id
 *   set: where the CPUs go
 * Returns 0; on failure, logs an error and returns -1. */
VORN_API int vorn_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t *set);

/* --- The watched thread --- */

/* Stores the id of the watched thread, which all processes share, in the shared memory object
 * "vornThreadWatch". The first call opens the object.
 *   tid: thread id to store
 * Returns 0; -1 if the object cannot be created. */
VORN_API int vorn_thread_watch_add(unsigned int tid);

/* Clears the id of the watched thread.
 * Returns 0. */
VORN_API int vorn_thread_watch_del(void);

/* Returns the id of the watched thread; 0 if there is none or the object cannot be created. */
VORN_API unsigned int vorn_thread_watch_get(void);

VORN_END_DECLS

#endif
