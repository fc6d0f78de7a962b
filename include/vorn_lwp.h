/* LWP instances: named tasks of a service. Each has an id, references, a life cycle, optionally its
 * own thread, and its own value of every LWP variable.
 *
 *   uint64_t default_limit = 10;
 *   LwpModuleInit();
 *   uint64_t limit = LwpVarRegister("limit", &default_limit, sizeof default_limit, NULL, NULL);
 *   uint64_t id = LwpInstNew("mover", NULL, run_mover, job);
 *   *(uint64_t *)LwpVarRaw(id, limit) = 5;
 *   LwpInstDelete(id, -1);
 *
 * An id is not reused within 2^32 creations. Unless a function says otherwise, the id 0 means the
 * calling thread's current instance. LWP_NONE is neither an instance nor a variable.
 *
 * An instance stays valid while references to it are held: LwpInstDelete first refuses new
 * references and then waits until all held ones are released. Pointers to an instance, its name and
 * its values are valid while a reference is held or no thread deletes the instance.
 *
 * Any thread may call any function after LwpModuleInit; before that there are no instances and no
 * variables. Only LwpCtxCurrent, LwpCtxSwitchShow and LwpExceptNotifyFn are safe in a signal
 * handler. No function is a cancellation point; callbacks that run while the library holds an
 * instance run with cancellation disabled. Log messages have the level information unless a
 * function says otherwise.
 *
 * In a child of fork() an instance has no thread; references that other threads of the parent held
 * remain. Instances that another thread was creating do not exist in the child; instances that
 * another thread was deleting continue to refuse references. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_LWP_H
#define VORN_LWP_H

#include <pthread.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* No instance or no variable: the result of a failed function that returns an id. */
#define LWP_NONE UINT64_MAX

/* Size of an instance's name in bytes, with its NUL. */
#define LWP_NAME_SIZE 64

/* The result of LwpInstDelete if references are still held at the time-out. */
#define LWP_TOO_MANY_REFERENCES (-109)

/* The states of an instance, in the high half of lwp_inst_s::state; also bits of a wait mask. */
enum {
  LWP_STATE_FREE = 0,
  LWP_STATE_RESERVED = 1,
  LWP_STATE_CONSTRUCTING = 2, /* the constructors of its variables are running */
  LWP_STATE_NORMAL = 4,       /* the only state in which references can be taken */
  LWP_STATE_DELETING = 8,
  LWP_STATE_ZOMBIE = 0x10 /* a deletion has timed out; it may be deleted again */
};

/* An instance's values. */
typedef struct lwp_var_area {
  uint64_t *values;     /* one for each possible variable; NULL if not allocated */
  uint32_t capacity;    /* number of values */
  uint32_t constructed; /* number of constructed variables, in the order of registration */
  uint32_t busy;        /* 1 while a thread constructs variables */
} lwp_var_area_s;

/* The function of an instance's thread. Its result is ignored. */
typedef void *(*lwp_entry_f)(void *arg);

/* An instance. Only the library writes it. */
typedef struct lwp_inst {
  uint64_t state;           /* LWP_STATE_* in the high half, number of references in the low half */
  uint64_t id;              /* the result of LwpInstNew */
  lwp_var_area_s area;      /* the values of its variables */
  char name[LWP_NAME_SIZE]; /* "None" if the caller passed none */
  pthread_t thread;         /* all ones: none */
  lwp_entry_f entry;        /* what the thread runs, NULL: none */
  void *arg;                /* its argument */
  pthread_t creator;        /* the thread that is creating it, 0: none */
  pthread_t constructing;   /* the thread that has area.busy, 0: none */
} lwp_inst_s;

/* The calling thread's current instance; NULL if it has none. LwpCtxAttach sets it. */
VORN_API extern __thread lwp_inst_s *g_lwpInstCurrent;

/* --- Module --- */

/* Sets the maximum number of instances, 1 to 65535; the default is 16. Takes effect only before
 * LwpModuleInit.
 *   n: the number
 * Returns 0; -1 without a log message if n is out of range. */
VORN_API int LwpCfgSetMaxInstNum(uint32_t n);

/* Sets the maximum number of variables, 1 to 65535; the default is 4096. Takes effect only before
 * LwpModuleInit.
 *   n: the number
 * Returns 0; -1 without a log message if n is out of range. */
VORN_API int LwpCfgSetMaxVarNum(uint32_t n);

/* Turns the trace of context switches on or off; it is off by default.
 *   s: 1 for on, another value for off
 * Returns 0. */
VORN_API int LwpCfgSetCtxTraceState(uint32_t s);

/* Starts the module, once per process.
 * Returns 0. If memory runs out, logs messages and returns -1, and the next call tries again.
 * Blocks on another thread's call. */
VORN_API int LwpModuleInit(void);

/* Returns 0 if LwpModuleInit has succeeded; otherwise, -1. */
VORN_API int LwpIsModuleInited(void);

/* Allocates the table of instances, a step of LwpModuleInit. A step that has succeeded is not
 * repeated.
 * Returns 0; logs a message and returns -1 if memory runs out. */
VORN_API int LwpInstModuleInit(void);

/* Allocates the table of variables, a step of LwpModuleInit.
 * Returns 0; logs a message and returns -1 if memory runs out. */
VORN_API int LwpVarModuleInit(void);

/* Registers LwpExceptNotifyFn on the exception chain, a step of LwpModuleInit.
 * Returns 0; logs a message and returns -1 if memory runs out. */
VORN_API int LwpDebugInit(void);

/* --- Instances --- */

/* Creates an instance called name (cut to 63 characters; "None" if NULL) and constructs its
 * variables. Unless entry is NULL, starts a thread that has the instance as its current instance
 * and calls entry(arg). reserved is ignored. The thread has no thread record. LwpInstDelete joins
 * it, so it must end once its instance is being deleted: LwpInstGet of its id then fails.
 *   name: name of the instance, or NULL
 *   reserved: not used
 *   entry: function of the instance's thread, or NULL for no thread
 *   arg: argument of entry
 * Returns the id; LWP_NONE without a log message if there are too many instances. Returns LWP_NONE
 * also if memory runs out, a constructor fails, the thread cannot be started, or a constructor
 * caused the deletion of the instance. */
VORN_API uint64_t LwpInstNew(const char *name, void *reserved, lwp_entry_f entry, void *arg);

/* Returns the instance with this id. If there is none, logs a message (a rate-limited error for an
 * id that no instance can have) and returns NULL.
 *   id: id of the instance */
VORN_API lwp_inst_s *LwpInstInfoFind(uint64_t id);

/* Takes a reference.
 *   id: id of the instance
 * Returns 0; -1 if the instance is not in its normal state. Logs a message and returns -1 if there
 * is no such instance or 2^32 - 1 references are held. */
VORN_API int LwpInstGet(uint64_t id);

/* Releases a reference.
 *   id: id of the instance
 * Returns 0; logs a message and returns -1 if there is no such instance or no reference is held. */
VORN_API int LwpInstPut(uint64_t id);

/* Calls fn(id, arg) for every instance in its normal state, with a reference held, until a call
 * returns another value than 0. Before it checks an instance, it waits, without a time limit, while
 * the state is in waitMask, unless the calling thread is creating the instance.
 *   fn: function to call with the id of each instance
 *   arg: second argument of fn
 *   waitMask: states whose end to wait for, LWP_STATE_* combined
 * Returns 0; if fn returns another value, logs a message and returns that value; if fn is NULL,
 * logs a message and returns -1. fn must not delete the instance: that would wait for the reference
 * of this function. */
VORN_API int LwpInstForEachNormal(int (*fn)(uint64_t id, void *arg), void *arg, uint32_t waitMask);

/* Calls fn(id, arg) for every instance in its normal state, as LwpInstForEachNormal does with a
 * waitMask of 0.
 *   fn: function to call with the id of each instance
 *   arg: second argument of fn
 * Returns what LwpInstForEachNormal returns. */
VORN_API int LwpInstForEach(int (*fn)(uint64_t id, void *arg), void *arg);

/* Deletes an instance. Refuses new references and waits until none is held, for at most timeoutMs
 * milliseconds (without a time limit if negative). Then waits, without a time limit, until its
 * thread has ended, and runs the destructors. During a wait, writes the statistics to the log once
 * a second.
 *   id: id of the instance
 *   timeoutMs: time-out in milliseconds, negative for none
 * Returns 0. Returns LWP_TOO_MANY_REFERENCES at the time-out: the instance is then a zombie, which
 * refuses references and may be deleted again. Logs a message and returns -1 if id is 0, there is
 * no such instance, it is already being deleted, or the caller is its own thread or a constructor
 * that runs for its creation. If a destructor fails, logs a message and returns its result; the
 * place of the instance is then lost. */
VORN_API int LwpInstDelete(uint64_t id, int32_t timeoutMs);

/* Returns the instance's name; if there is no such instance, logs a message and returns NULL.
 *   id: id of the instance */
VORN_API const char *LwpInstGetName(uint64_t id);

/* --- Context --- */

/* Returns the id of the calling thread's current instance; LWP_NONE if there is none. */
VORN_API uint64_t LwpCtxCurrent(void);

/* Makes newId the calling thread's current instance. If newId is LWP_NONE or, with a log message,
 * the id of no instance, the thread has no current instance; if newId is 0, nothing changes. Stores
 * the id of the previous instance in *oldId unless oldId is NULL. An attached thread should hold a
 * reference: attaching takes none.
 *   newId: id of the instance
 *   oldId: where the id of the previous instance goes, or NULL
 * Returns 0. */
VORN_API int LwpCtxAttach(uint64_t newId, uint64_t *oldId);

/* Notes a switch in the calling thread's thread record, with 9 return addresses. The first is that
 * of the caller of the function that called this one; addresses that the stack does not have are 0.
 * Does nothing if the thread has no thread record or no address can be found.
 *   oldId: id of the instance that the thread leaves
 *   newId: id of the instance that the thread enters */
VORN_API void LwpCtxDbgSwitch(uint64_t oldId, uint64_t newId);

/* Shows the calling thread's last 3 switches through print if the trace is on. Signal-safe if print
 * is.
 *   print: function that each line goes through */
VORN_API void LwpCtxSwitchShow(vorn_print_f print);

/* A block of a notifier chain (vorn_notifier.h). */
struct vorn_notifier_block;

/* The module's callback on the exception chain: calls LwpCtxSwitchShow(evlog_original). Ignores its
 * arguments.
 *   block: not used
 *   action: not used
 *   data: not used
 * Returns 1. */
VORN_API int LwpExceptNotifyFn(struct vorn_notifier_block *block, unsigned long action, void *data);

/* --- Statistics of callers --- */

/* A counter for a place in the program. */
typedef struct lwp_auto_stat {
  uint64_t address; /* the return address of the first call from there */
  uint64_t count;   /* the calling place increments it */
} lwp_auto_stat_s;

/* Assigns an entry of the table "LWP_GET_INST" to the calling place: sets *slot, a static variable
 * of that place that starts as NULL, once. There are 1024 entries in each table; later places share
 * the last one. Does nothing if slot is NULL.
 *   slot: variable of the calling place */
VORN_API void LwpAutoStatGetInst(lwp_auto_stat_s **slot);

/* Assigns an entry of the table "LWP_PUT_INST" to the calling place, as LwpAutoStatGetInst does for
 * its table.
 *   slot: variable of the calling place */
VORN_API void LwpAutoStatPutInst(lwp_auto_stat_s **slot);

/* Shows both tables, unless empty, through print, with suffix at the end of each line.
 *   print: function that each line goes through
 *   suffix: text at the end of each line */
VORN_API void LwpShowAutoStatAll(vorn_print_f print, const char *suffix);

/* --- Variables --- */

/* The functions that construct and destroy a variable of an instance; each may be NULL. Both get
 * the instance's id and return 0, or another value on failure. When a constructor runs, the
 * variable holds the default value. A constructor must not wait for another thread that creates an
 * instance or registers a variable. */
typedef struct lwp_var_ops {
  int (*constructor)(uint64_t instId, void *arg); /* constructs it */
  void *constructorArg;                           /* its second argument */
  int (*destructor)(uint64_t instId, void *arg);  /* destroys it */
  void *destructorArg;                            /* its second argument */
} lwp_var_ops_s;

/* Registers a variable of size bytes, at most 8, permanently, and constructs it in every instance;
 * waits for instances that are being created. Keeps the pointer name, but copies *ops; if ops is
 * NULL, there is neither function. Stores the id in *varId, unless varId is NULL, before the
 * constructors run.
 *   name: name of the variable
 *   defaultValue: the default value, size bytes
 *   size: bytes of the variable, at most 8
 *   ops: constructor and destructor, or NULL
 *   varId: where the id goes, or NULL
 * Returns the id. Logs a message and returns LWP_NONE if size is above 8, defaultValue is NULL,
 * there are too many variables, or a constructor fails; only in the last case does the variable
 * stay registered. */
VORN_API uint64_t LwpVarRegister(const char *name, const void *defaultValue, size_t size,
                                 const lwp_var_ops_s *ops, uint64_t *varId);

/* Runs LwpVarConstructor for every instance in its normal state; waits for instances that are being
 * created.
 * Returns 0; otherwise, the result of the call that failed. */
VORN_API int LwpVarUpdate(void);

/* Constructs the variables that an instance lacks, in the order of their registration; blocks while
 * another thread does so. If a constructor fails, runs the destructors of the variables that this
 * call constructed, in reverse order.
 *   instId: id of the instance
 * Returns 0; if a constructor fails, logs a message and returns its result; if there is no such
 * instance, logs an error and returns -1. */
VORN_API int LwpVarConstructor(uint64_t instId);

/* Runs the destructors of an instance's variables, the last one first, until one fails.
 * LwpInstDelete calls this function.
 *   instId: id of the instance
 * Returns 0; if a destructor fails, logs a message and returns its result; if there is no such
 * instance, logs an error and returns -1. */
VORN_API int LwpVarDestructor(uint64_t instId);

/* Allocates an instance's values, all 0.
 *   area: values of an instance
 * Returns 0; logs a message and returns -1 if memory runs out. */
VORN_API int LwpVarMalloc(lwp_var_area_s *area);

/* Frees an instance's values and sets the pointer to NULL.
 *   area: values of an instance */
VORN_API void LwpVarFree(lwp_var_area_s *area);

/* Returns the address of the variable's default value; NULL if there is no such variable.
 *   varId: id of the variable */
VORN_API void *LwpVarDef(uint64_t varId);

/* Returns the address of the variable's value in an instance; if there is no such instance or
 * variable, logs a message and returns NULL.
 *   instId: id of the instance
 *   varId: id of the variable */
VORN_API void *LwpVarRaw(uint64_t instId, uint64_t varId);

/* Returns the variable's name; "Invalid varId" if there is no such variable.
 *   varId: id of the variable */
VORN_API const char *LwpVarGetName(uint64_t varId);

/* Shows the values of all variables in every instance in its normal state through print.
 *   print: function that each line goes through */
VORN_API void LwpVarShowAll(vorn_print_f print);

/* Shows the value of the variable called varName in every instance in its normal state through
 * print.
 *   print: function that each line goes through
 *   varName: name of the variable */
VORN_API void LwpVarShowVarInfo(vorn_print_f print, const char *varName);

VORN_END_DECLS

#endif
