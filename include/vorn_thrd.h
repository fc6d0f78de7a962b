/* Threads: the thread record that the library keeps of each, their creation, the pool, scheduling
 * strategies and CPU binding.
 *
 * Every thread started here is detached and has a thread record, a vorn_thread_s, with its name,
 * kernel id, strategy, stacks and context. Records lie in a table of VORN_THRD_SLOT_COUNT slots
 * with a reference count each; a slot's record is never freed, so a thread that finds another by
 * its id and holds the reference may read the record also after the other has ended. Where the
 * table is full a thread still gets a record, which no lookup and no listing sees and which goes
 * with the thread. A child of fork() begins with the record of the thread that called it, and
 * without a pool; the other records, and references to them, are the parent's alone.
 *
 * However a thread ends, by return, pthread_exit(3) or cancellation, it gives back its record, its
 * slot and the reference that it has to itself: a destructor of thread-specific data does that. A
 * later destructor that needs a record adopts the thread again. References that a thread took with
 * vorn_thrd_getthreadinfobytid remain its own to give back.
 *
 * Unless a function says otherwise: any thread may call, it does not block but for the allocator,
 * it is no cancellation point, it is not for signal handlers, and it returns 0, or -1 after an
 * error message. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_THRD_H
#define VORN_THRD_H

#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* Threads that lookups and listings can see at a time. */
#define VORN_THRD_SLOT_COUNT 1024u

/* Bytes of a name with its NUL. */
#define VORN_THRD_NAME_SIZE 16

/* Bytes of each thread's alternate signal stack. */
#define VORN_THRD_SIGSTACK_SIZE 65536u

/* CPUs that a set for binding has room for. */
#define VORN_THRD_CPU_COUNT 1024u

/* 64-bit words of a set for binding, whose bit n is CPU n. */
#define VORN_THRD_CPUSET_WORDS 16

/* Bytes of a set for binding. */
#define VORN_THRD_CPUSET_SIZE 128u

/* The scheduling strategies, and vorn_thread_s::strategy while none has been applied. */
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

/* What vorn_thread_s::context holds. */
enum {
  VORN_THRD_CONTEXT_NORMAL = 0,
  VORN_THRD_CONTEXT_IOD = 1, /* dispatches I/O */
  VORN_THRD_CONTEXT_IRQ = 2  /* stands for an interrupt */
};

/* A thread function. What it returns goes nowhere: threads are detached. */
typedef void *(*vorn_thrd_entry_f)(void *argument);

/* How many changes a trace holds. */
#define VORN_THRD_SWITCH_COUNT 3

/* How many return addresses a trace holds of each change. */
#define VORN_THRD_SWITCH_DEPTH 9

/* A thread's change from one light-weight instance to another. */
typedef struct vorn_thrd_switch {
  uint64_t old_id;                                 /* of the instance that was left */
  uint64_t new_id;                                 /* of the one that was entered */
  unsigned long addresses[VORN_THRD_SWITCH_DEPTH]; /* return addresses, from the innermost out */
} vorn_thrd_switch_s;

/* The last changes of a thread. */
typedef struct vorn_thrd_switch_trace {
  uint64_t count; /* of changes so far */
  vorn_thrd_switch_s
      entries[VORN_THRD_SWITCH_COUNT]; /* change n is entry n mod VORN_THRD_SWITCH_COUNT */
} vorn_thrd_switch_trace_s;

/* A place in the table of threads; what is in it is the library's. */
struct vorn_thrd_slot;

/* The record of a thread. Its owner is the thread itself, which alone changes it; another reads it
 * with a reference held. Of what may change while the thread runs, tid and strategy are written as
 * whole words, so that a reader sees the one or the other, and the name as two: its halves may be
 * of two names. */
typedef struct vorn_thread {
  struct vorn_thrd_slot *slot;    /* NULL: the record has no place in the table */
  pthread_t handle;               /* of a pool thread */
  vorn_thrd_entry_f entry;        /* the thread function; of a pool thread its job, NULL if idle */
  void *argument;                 /* its argument */
  char name[VORN_THRD_NAME_SIZE]; /* "[NULL]" until vorn_thrd_setname */
  int64_t tid;                    /* the kernel's id, 0 until the thread has started */
  int32_t pid;                    /* of the process */
  int32_t strategy;               /* VORN_THRD_STRATEGY_* */
  uint32_t context;               /* VORN_THRD_CONTEXT_* */
  uint32_t iod_thread_id;         /* all ones: none */
  unsigned long os_stack_low;     /* the usable stack; both 0: unknown */
  unsigned long os_stack_high;    /* the address after it */
  unsigned char *sig_stack;       /* VORN_THRD_SIGSTACK_SIZE bytes */
  sem_t job;                      /* raised once for each job of a pool thread */
  uint32_t preempt_flag;          /* 0: may be preempted */
  uint32_t pooled;                /* 1: a thread of the pool */
  uint64_t jobs;                  /* that a pool thread has run */
  uint64_t cpuset[VORN_THRD_CPUSET_WORDS]; /* what the thread last bound itself to; 0: nothing */
  vorn_thrd_switch_trace_s switch_trace;   /* of light-weight instances on this thread */
} vorn_thread_s;

/* --- Records --- */

/* Returns the calling thread's record, NULL when it has none: the library neither created nor
 * adopted it. Signal-safe. */
VORN_API vorn_thread_s *vorn_thrd_currentthreadinfo(void);

/* Returns the record of the running thread whose kernel id is tid, with a reference that the caller
 * gives back by vorn_thrd_putthreadinfo; NULL, without a log message, when no thread in the table
 * has it. Signal-safe.
 *   tid: kernel id of the thread */
VORN_API vorn_thread_s *vorn_thrd_getthreadinfobytid(long tid);

/* Gives a reference back; the record must not be used after that.
 *   thread: thread record to give back
 * Returns how many are left. One that none was held of is reported as an error and left at 0. A
 * record without a slot is freed. Signal-safe for a record that vorn_thrd_getthreadinfobytid has
 * found. */
VORN_API int vorn_thrd_putthreadinfo(vorn_thread_s *thread);

/* Adopts the calling thread, which the library did not create: gives it a record, its signal stack
 * and strategy 0. Nothing is done where it has one. The thread gives the record back when it ends,
 * or earlier by vorn_thrd_clearcurthreadinfo.
 * Returns 0; -1 after an information message when memory is short. */
VORN_API int vorn_thrd_setcurthreadinfo(void);

/* Takes the calling thread's record away from it, before the thread ends.
 * Returns 0; -1 when it has none. */
VORN_API int vorn_thrd_clearcurthreadinfo(void);

/* Prepares the registry, once per process. Every function that needs it calls it, vorn_Init too.
 * Returns 0. Logs an error where the process has no key of thread-specific data left: threads then
 * give their records back when they return from their entry, and the next call tries again. */
VORN_API int vorn_thrd_module_init(void);

/* Lists the threads of the table with their kernel id, name and strategy through print.
 *   print: function that each line goes through
 * Returns 0; -1 when print is NULL. */
VORN_API int vorn_thrd_list(vorn_print_f print);

/* Has the kernel module report the state of thread tid. Without the module: an information message,
 * nothing else.
 *   tid: kernel id of the thread */
VORN_API void vorn_thrd_getstatus(unsigned int tid);

/* --- Ids and names --- */

/* Returns the calling thread's kernel id (gettid(2)). Signal-safe. */
VORN_API long vorn_thread_get_knl_tid(void);

/* Stores the process id (getpid(2)) that vorn_thrd_getpid_accl gives. 0 and less are no values. A
 * child of fork() begins without. Signal-safe.
 *   pid: the process id */
VORN_API void vorn_thrd_setpid_accl(pid_t pid);

/* Returns the process id, kept in the process: the system is asked only until there is a value.
 * Signal-safe. */
VORN_API pid_t vorn_thrd_getpid_accl(void);

/* Stores the thread id that vorn_thrd_gettid_accl gives. All ones are no value. A child of fork()
 * begins without. Signal-safe.
 *   thread: the thread */
VORN_API void vorn_thrd_settid_accl(pthread_t thread);

/* Returns a thread id, kept in the process. It is one for the whole process, that of the thread
 * that set it or asked first; for the calling thread's own use pthread_self(3). Signal-safe. */
VORN_API pthread_t vorn_thrd_gettid_accl(void);

/* Names the calling thread, in its record and for the kernel (PR_SET_NAME of prctl(2)). A name is
 * cut to 15 characters. Nothing but an error message when format is NULL or the thread has no
 * record.
 *   format: printf format
 *   ...: values of the format */
VORN_API void vorn_thrd_setname(const char *format, ...) VORN_PRINTF(1, 2);

/* Returns the calling thread's name, valid for as long as its record; NULL without a record.
 * Signal-safe. */
VORN_API const char *vorn_thrd_getname(void);

/* Copies the process's name as /proc/PID/status has it, read once, with its NUL into the len bytes
 * at buf; 32 are always enough. Blocks on /proc.
 *   buf: where the name goes
 *   len: bytes at buf
 * Returns 0; logs an error and returns -1 when buf is NULL, the name cannot be read or does not
 * fit. */
VORN_API int vorn_get_process_name(char *buf, unsigned int len);

/* Copies the file name of the process's executable, as vorn_get_process_name copies the process's
 * name.
 *   buf: where the name goes
 *   len: bytes at buf
 * Returns as vorn_get_process_name does. */
VORN_API int vorn_get_process_exe_name(char *buf, unsigned int len);

/* --- The calling thread --- */

/* Lets the other threads of this CPU run first: sched_yield(2). */
VORN_API void vorn_thrd_yield(void);

/* Returns the CPU that the calling thread was bound to by vorn_sched_setaffinity or
 * vorn_thrd_core_set, else the one that it runs on at the moment (sched_getcpu(3)). Signal-safe. */
VORN_API int smp_processor_id(void);

/* Stores the CPU that the calling thread is said to be on; a negative one is none, as for a new
 * thread. Signal-safe.
 *   core: number of the CPU, negative for none */
VORN_API void vorn_thrd_core_set(int core);

/* Stores the NUMA node that the calling thread is said to be on; a negative one is none, as for a
 * new thread. Signal-safe.
 *   node: number of the NUMA node, negative for none */
VORN_API void vorn_thrd_numaId_set(int node);

/* Returns the NUMA node that the calling thread is said to be on; -1 for a new thread. Signal-safe.
 */
VORN_API int vorn_thrd_numaId_get(void);

/* Makes the calling thread one that dispatches I/O, under this id. Does nothing where the thread
 * has no record. Signal-safe.
 *   id: id for the thread */
VORN_API void vorn_thread_run_in_iod_context_init(unsigned int id);

/* Returns whether the calling thread dispatches I/O; 0 without a record. Signal-safe. */
VORN_API int vorn_thread_run_in_iod_context_check(void);

/* Returns the id under which the calling thread dispatches I/O; 0 without a record. Signal-safe. */
VORN_API unsigned int vorn_thread_iod_thread_id_get(void);

/* Lets the calling thread stand for an interrupt until the context that is saved in *saved is
 * restored. Does nothing where the thread has no record. Signal-safe.
 *   saved: where the context goes */
VORN_API void vorn_thread_run_in_irq_context_save(unsigned int *saved);

/* Restores the context that vorn_thread_run_in_irq_context_save saved. Does nothing where the
 * thread has no record. Signal-safe.
 *   saved: context to restore */
VORN_API void vorn_thread_run_in_irq_context_restore(unsigned int saved);

/* Returns whether the calling thread stands for an interrupt; 0 without a record. Signal-safe. */
VORN_API int vorn_thread_run_in_irq_context_check(void);

/* --- Stacks --- */

/* Stores the bounds of the calling thread's stack: the lowest address and the one after the
 * highest. Signal-safe.
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns 0; -1 without a log message when they are unknown. */
VORN_API int vorn_thrd_getosstack(unsigned long *low, unsigned long *high);

/* Stores the bounds of the calling thread's signal stack, as vorn_thrd_getosstack those of its
 * stack. Signal-safe.
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns as vorn_thrd_getosstack does. */
VORN_API int vorn_thrd_getsigstack(unsigned long *low, unsigned long *high);

/* Stores the bounds of the stack of the thread with kernel id tid. Signal-safe.
 *   tid: kernel id of the thread
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns 0; -1 without a log message when they are unknown. */
VORN_API int vorn_thread_get_specific_stack(long tid, unsigned long *low, unsigned long *high);

/* What knows the stacks of light-weight threads. Both are called in signal handlers. */
typedef struct vorn_lwt_stack_ops {
  int (*is_lwt_stack)(unsigned long address); /* 0: it lies in one */
  int (*get_lwt_stack)(unsigned long address, unsigned long *low,
                       unsigned long *high); /* 0: the bounds are found */
} vorn_lwt_stack_ops_s;

/* Registers both functions of *ops, which is copied.
 *   ops: the two functions
 * Returns 0; -1 without a log message when ops is NULL. */
VORN_API int register_lwt_stack_ops(const vorn_lwt_stack_ops_s *ops);

/* Takes both functions away. */
VORN_API void unregister_lwt_stack_ops(void);

/* Asks the registered function is_lwt_stack. Signal-safe.
 *   address: address to look at
 * Returns the result of is_lwt_stack; -1 when none is registered. */
VORN_API int vorn_thrd_islwtstack(unsigned long address);

/* Asks the registered function get_lwt_stack. Signal-safe.
 *   address: address to look at
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 * Returns the result of get_lwt_stack; -1 when none is registered. */
VORN_API int vorn_thrd_getlwtstack(unsigned long address, unsigned long *low, unsigned long *high);

/* Tells on which of the calling thread's stacks address lies: stores its bounds, and in *kind
 * "LWT_STACK", "OS_STACK" (a page below the stack still counts), "SIG_STACK", or "UNKNOWN_STACK"
 * for an address close above the caller's frame on a stack that the library does not know; this one
 * is taken to begin at the address's page and to be vorn_thrd_getunknownstacksize bytes long.
 * Signal-safe.
 *   address: address to look at
 *   low: where the lowest address goes
 *   high: where the address after the highest goes
 *   kind: where the kind of the stack goes
 * Returns 0; -1 without a log message when kind is NULL, or the address lies on none, with *kind
 * "INVALID_STACK" or "INVALID_LWT_STACK" then. */
VORN_API int vorn_thrd_getcurrentstack(unsigned long address, unsigned long *low,
                                       unsigned long *high, const char **kind);

/* Sets the size in bytes that a stack of unknown bounds is taken for; 8192 at the start.
 * Signal-safe.
 *   size: size in bytes */
VORN_API void vorn_thrd_setunknownstacksize(unsigned long size);

/* Returns the size in bytes that a stack of unknown bounds is taken for. Signal-safe. */
VORN_API unsigned long vorn_thrd_getunknownstacksize(void);

/* Stores count return addresses of the calling thread, from the innermost out: skip 0 begins with
 * the address in the function that called this one, each more leaves out one call. Where the stack
 * has fewer, 0 follows them.
 *   addresses: where the return addresses go
 *   count: room at addresses
 *   skip: calls to leave out
 * Returns 0; -1 when addresses is NULL or the stack has none. The addresses are found by frame
 * pointers and end where a function was built without. Signal-safe. */
VORN_API int vorn_thrd_backtrace(unsigned long *addresses, unsigned int count, unsigned int skip);

/* --- Creation --- */

/* Starts a thread that runs entry(argument), in the pool where that has an idle one, else a new one
 * under strategy 0. Its id goes to *out unless out is NULL; it may have ended by then.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns 0, and the entry is run once in any case; -1 after a log message. */
VORN_API int vorn_thrd_create(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Starts a new thread that runs entry(argument), as vorn_thrd_create does without the pool.
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

/* Starts a thread as vorn_thrd_create does; a new thread has a stack of 131072 bytes where the
 * instant-map flag is set.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out);

/* Starts a new thread with these attributes (NULL: default ones), made detached, and without a
 * strategy.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 *   attr: attributes of the thread, or NULL
 * Returns what vorn_thrd_create returns. */
VORN_API int vorn_thrd_create_attr(vorn_thrd_entry_f entry, void *argument, pthread_t *out,
                                   pthread_attr_t *attr);

/* Starts a new thread that runs start_routine with its vorn_thread_s * as argument, which holds
 * entry and argument, and is start_routine's to put back. The other functions build on this one.
 *   entry: function to run
 *   argument: its argument
 *   start_routine: function that gets the thread record
 *   out: where the id goes, or NULL
 *   attr: attributes of the thread, or NULL
 * Returns 0; logs an error and returns -1 when the thread cannot be started. */
VORN_API int create_thread_raw_base(vorn_thrd_entry_f entry, void *argument,
                                    vorn_thrd_entry_f start_routine, pthread_t *out,
                                    pthread_attr_t *attr);

/* Initialises attributes: pthread_attr_init(3).
 *   attr: the attributes
 * Returns 0; -1 without a log message when attr is NULL or the call fails. */
VORN_API int vorn_thrd_attr_init(pthread_attr_t *attr);

/* Destroys attributes: pthread_attr_destroy(3).
 *   attr: the attributes
 * Returns 0; -1 without a log message when attr is NULL or the call fails. */
VORN_API int vorn_thrd_attr_destroy(pthread_attr_t *attr);

/* Sets the size of a stack in bytes: pthread_attr_setstacksize(3).
 *   attr: the attributes
 *   size: size in bytes
 * Returns 0; -1 without a log message when attr is NULL or the call fails. */
VORN_API int vorn_thrd_setstacksize(pthread_attr_t *attr, size_t size);

/* Gives threads that are started from now on small stacks where their function says so. */
VORN_API void vorn_set_instant_map_flag(void);

/* Returns 1 once vorn_set_instant_map_flag has been called, else 0. */
VORN_API int vorn_get_instant_map_flag(void);

/* --- The pool --- */

/* Creates the pool of count threads, at most 1024, which then wait for jobs. Once per process: a
 * second call is logged and returns 0. A quarter of them and one more, which starts the rest, have
 * been started when it returns. Where not one could be started the call may be made again.
 *   count: number of threads
 * Returns the number of threads that have been started, so that every count but 1 gives less than
 * count (8 asked, 3 returned). */
VORN_API unsigned int vorn_thread_pool_create(unsigned int count);

/* Has an idle thread of the pool run entry(argument). Its id goes to *out unless out is NULL.
 *   entry: function to run
 *   argument: its argument
 *   out: where the id goes, or NULL
 * Returns 0; -1 without a log message when there is no pool or no thread of it is idle. Neither
 * locks nor allocates, unless a thread of the pool is missing.
 *
 * Each job begins on a thread that is bound to all CPUs, runs under strategy 0, is in no context,
 * has the signal mask with which vorn_thread_pool_create was called, but for SIGWAKEUP, which is
 * not blocked, and can be cancelled, deferred. After a job the thread looks for the next one for 20
 * microseconds before it sleeps.
 *
 * A job may be cancelled, call pthread_exit(3), or give up its thread's record: the thread ends
 * with it, and another takes its place in the pool. A cancellation that has not acted when the job
 * ends acts then. One that comes later is not the next job's: the thread ends, and the job that it
 * was given runs on the one that takes its place; where no thread can be started, on the one that
 * ends, which cannot be cancelled again. A thread that could not be started is started at a later
 * call of this function. */
VORN_API int create_thread_from_thread_pool(vorn_thrd_entry_f entry, void *argument,
                                            pthread_t *out);

/* Has all threads of the pool end, those with a job when it is done, and none take the place of
 * another; sleeps 10 ms. A job that was given is always run.
 * Returns how many had not left by then, 0 without a pool. There is no other pool afterwards. */
VORN_API int vorn_thread_pool_destroy(void);

/* --- Strategy, priority and CPU binding --- */

/* What a strategy is made of. */
typedef struct vorn_thrd_strategy {
  uint32_t prio;       /* the nice value, -20 to 19, as a signed number */
  const char *cpumask; /* as vorn_cpum_parse_cpumask reads it */
} vorn_thrd_strategy_s;

/* Sets up a strategy, before threads that use it start: the table has no lock.
 *   strategy: VORN_THRD_STRATEGY_*
 *   settings: nice value and CPUs
 * Returns 0; -1 after an information message when there is no such strategy or its CPUs cannot be
 * read, it is invalid then. */
VORN_API int vorn_initThreadStrategy(unsigned int strategy, const vorn_thrd_strategy_s *settings);

/* Puts the calling thread under a strategy: its nice value and its CPUs. One that is not set up
 * takes those of strategy 0; where that is not either, nothing is done.
 *   strategy: VORN_THRD_STRATEGY_*
 * Returns 0, also for a number that is no strategy, after an information message; -1 after one when
 * the system refuses. */
VORN_API int vorn_setCurThreadStrategy(unsigned int strategy);

/* Sets the calling thread's nice value: setpriority(2).
 *   prio: nice value, -20 to 19
 * Returns 0; -1 after a warning. */
VORN_API int vorn_setCurThreadPrio(int prio);

/* Sets the calling thread's nice value on a scale: levels 0 to 4 are the nice values -20, -15, 0,
 * 10 and 15; others do nothing.
 *   level: 0 to 4, the most urgent first */
VORN_API void vorn_thrd_setprio(unsigned int level);

/* Binds the calling thread to the CPUs of a text as vorn_cpum_parse_cpumask reads it.
 *   cpumask: list of CPUs
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_setCurThreadBind(const char *cpumask);

/* Shows the table of strategies through print.
 *   print: function that each line goes through
 * Returns 0; -1 when print is NULL. */
VORN_API int vorn_showThreadStrategyDbg(vorn_print_f print);

/* Binds a thread to the CPUs of a set (pthread_setaffinity_np(3)). Only its first n / 8 bytes,
 * rounded up, are read, n the number of configured CPUs, at most VORN_THRD_CPUSET_SIZE; where they
 * are all 0 nothing is changed.
 *   thread: the thread
 *   cpuset: set of CPUs
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_thrd_setbindcpu(pthread_t thread, const unsigned char *cpuset);

/* Binds the calling thread to all configured CPUs.
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_thrd_bindAllCfgCpu(void);

/* Stores the CPUs that a thread is bound to (pthread_getaffinity_np(3)).
 *   thread: the thread
 *   set: where the CPUs go
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_thrd_getbindcpu(pthread_t thread, cpu_set_t *set);

/* Stores the CPUs that the main thread of the process pid is bound to (sched_getaffinity(2); 0: the
 * calling thread).
 *   pid: the process id
 *   set: where the CPUs go
 * Returns 0; logs an error and returns -1 otherwise. */
VORN_API int vorn_thrd_getbindcpu_bypid(pid_t pid, cpu_set_t *set);

/* --- The watched thread --- */

/* Sets the one thread id that processes share, in the shared memory object "vornThreadWatch". The
 * first call opens the object.
 *   tid: thread id to store
 * Returns 0; -1 when the object cannot be made. */
VORN_API int vorn_thread_watch_add(unsigned int tid);

/* Takes the shared thread id back.
 * Returns 0. */
VORN_API int vorn_thread_watch_del(void);

/* Returns the shared thread id; 0 when there is none or the object cannot be made. */
VORN_API unsigned int vorn_thread_watch_get(void);

VORN_END_DECLS

#endif
