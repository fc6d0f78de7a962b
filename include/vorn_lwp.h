/* LWP instances: named tasks of a service. Each has an id, references, a life cycle and, if wanted,
 * a thread of its own, and holds a private value of every LWP variable.
 *
 *   uint64_t default_limit = 10;
 *   LwpModuleInit();
 *   uint64_t limit = LwpVarRegister("limit", &default_limit, sizeof default_limit, NULL, NULL);
 *   uint64_t id = LwpInstNew("mover", NULL, run_mover, job);
 *   *(uint64_t *)LwpVarRaw(id, limit) = 5;
 *   LwpInstDelete(id, -1);
 *
 * An id is never used again within 2^32 creations. Where a function takes one, 0 stands for the
 * calling thread's current instance, unless it says otherwise. LWP_NONE is no instance and no
 * variable.
 *
 * An instance stays while references are held: LwpInstDelete first refuses new ones, then waits
 * until those held are given back. What is borrowed from an instance (its record, name and values)
 * is valid as long as a reference is held or no thread deletes it.
 *
 * Any thread may call any function after LwpModuleInit; before that there are no instances and no
 * variables. No function is for signal handlers, but LwpCtxCurrent, LwpCtxSwitchShow and
 * LwpExceptNotifyFn. None is a cancellation point; callbacks that run while the library holds an
 * instance run with cancellation disabled. Messages are information unless a function says
 * otherwise.
 *
 * In a child of fork() an instance is a context without a thread; references that other threads of
 * the parent held remain. Instances that another thread was creating do not exist there, those that
 * one was deleting stay refused. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_LWP_H
#define VORN_LWP_H

#include <pthread.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* No instance, no variable: what the functions that return an id return on failure. */
#define LWP_NONE UINT64_MAX

/* Bytes of an instance's name with its NUL. */
#define LWP_NAME_SIZE 64

/* What LwpInstDelete returns when references are still held at the time-out. */
#define LWP_TOO_MANY_REFERENCES (-109)

/* The states of an instance, in the high half of lwp_inst_s::state; also bits of a wait mask. */
enum {
  LWP_STATE_FREE = 0,
  LWP_STATE_RESERVED = 1,
  LWP_STATE_CONSTRUCTING = 2, /* the constructors of its variables run */
  LWP_STATE_NORMAL = 4,       /* the only one in which references can be taken */
  LWP_STATE_DELETING = 8,
  LWP_STATE_ZOMBIE = 0x10 /* a deletion has timed out; it may be deleted again */
};

/* An instance's values. */
typedef struct lwp_var_area {
  uint64_t *values;     /* one for each possible variable; NULL: none */
  uint32_t capacity;    /* how many */
  uint32_t constructed; /* how many of the registered variables, in their order */
  uint32_t busy;        /* 1 while a thread constructs some */
} lwp_var_area_s;

/* A function of an instance's thread. What it returns goes nowhere. */
typedef void *(*lwp_entry_f)(void *arg);

/* An instance. The library alone writes it. */
typedef struct lwp_inst {
  uint64_t state;      /* LWP_STATE_* in the high half, the number of references in the low one */
  uint64_t id;         /* what LwpInstNew returned */
  lwp_var_area_s area; /* the values of its variables */
  char name[LWP_NAME_SIZE]; /* "None" without one */
  pthread_t thread;         /* all ones: none */
  lwp_entry_f entry;        /* what the thread runs, NULL: none */
  void *arg;                /* its argument */
  pthread_t creator;        /* the thread that is creating it, 0: none */
  pthread_t constructing;   /* the thread that has area.busy, 0: none */
} lwp_inst_s;

/* The calling thread's current instance, NULL: none. Set by LwpCtxAttach. */
VORN_API extern __thread lwp_inst_s *g_lwpInstCurrent;

/* --- Module --- */

/* Sets how many instances there can be, 1 to 65535; 16 at the start. Takes effect when called
 * before LwpModuleInit.
 *   n: the number
 * Returns 0; -1 without a log message for another number. */
VORN_API int LwpCfgSetMaxInstNum(uint32_t n);

/* Sets how many variables there can be, 1 to 65535; 4096 at the start. Takes effect when called
 * before LwpModuleInit.
 *   n: the number
 * Returns 0; -1 without a log message for another number. */
VORN_API int LwpCfgSetMaxVarNum(uint32_t n);

/* Switches the trace of context switches on for 1, and off for another value, as at the start.
 *   s: 1 for on, another value for off
 * Returns 0. */
VORN_API int LwpCfgSetCtxTraceState(uint32_t s);

/* Starts the module, once per process.
 * Returns 0; -1 after log messages when memory is short, the next call tries again then. Blocks on
 * another thread's call. */
VORN_API int LwpModuleInit(void);

/* Returns 0 when LwpModuleInit has been done, else -1. */
VORN_API int LwpIsModuleInited(void);

/* Makes the table of instances, a step of LwpModuleInit. A step that has been made is not made
 * again.
 * Returns 0; -1 after a log message when memory is short. */
VORN_API int LwpInstModuleInit(void);

/* Makes the table of variables, a step of LwpModuleInit.
 * Returns 0; -1 after a log message when memory is short. */
VORN_API int LwpVarModuleInit(void);

/* Registers LwpExceptNotifyFn on the exception chain, a step of LwpModuleInit.
 * Returns 0; -1 after a log message when memory is short. */
VORN_API int LwpDebugInit(void);

/* --- Instances --- */

/* Makes an instance called name (cut to 63 characters; NULL: "None"), constructs its variables and,
 * unless entry is NULL, starts a thread that has it as current instance and calls entry(arg).
 * reserved is ignored. The thread has no thread record, and is joined by LwpInstDelete: it must end
 * once its instance is being deleted, which a failing LwpInstGet of its id tells.
 *   name: name of the instance, or NULL
 *   reserved: not used
 *   entry: function of the instance's thread, or NULL for no thread
 *   arg: argument of entry
 * Returns the id. LWP_NONE without a log message when there are too many instances; also when
 * memory is short, a constructor fails or the thread cannot be started, or a constructor had the
 * instance deleted. */
VORN_API uint64_t LwpInstNew(const char *name, void *reserved, lwp_entry_f entry, void *arg);

/* Returns the instance with this id; NULL after a log message (a rate-limited error for an id that
 * no instance can have) when there is none.
 *   id: id of the instance */
VORN_API lwp_inst_s *LwpInstInfoFind(uint64_t id);

/* Takes a reference.
 *   id: id of the instance
 * Returns 0; -1 when there is no such instance (after a log message), when it is not in its normal
 * state, or when 2^32 - 1 references are held (after a log message). */
VORN_API int LwpInstGet(uint64_t id);

/* Gives a reference back.
 *   id: id of the instance
 * Returns 0; -1 after a log message when there is no such instance or no reference is held. */
VORN_API int LwpInstPut(uint64_t id);

/* Calls fn(id, arg) for every instance in its normal state, with a reference held, until one call
 * does not return 0. Before it looks at an instance it waits, without a limit, as long as the state
 * is in waitMask, unless the calling thread itself is creating the instance.
 *   fn: function to call with the id of each instance
 *   arg: second argument of fn
 *   waitMask: states to wait for the end of, LWP_STATE_* combined
 * Returns 0; what fn returned after a log message; -1 after one when fn is NULL. fn must not delete
 * the instance: that would wait for this function's own reference. */
VORN_API int LwpInstForEachNormal(int (*fn)(uint64_t id, void *arg), void *arg, uint32_t waitMask);

/* Calls fn(id, arg) for every instance in its normal state, as LwpInstForEachNormal does with a
 * waitMask of 0.
 *   fn: function to call with the id of each instance
 *   arg: second argument of fn
 * Returns what LwpInstForEachNormal returns. */
VORN_API int LwpInstForEach(int (*fn)(uint64_t id, void *arg), void *arg);

/* Deletes an instance: refuses new references, waits until none is held (at most timeoutMs
 * milliseconds, a negative number: without a limit), then, without a limit, until its thread has
 * ended, and runs the destructors. A wait writes the statistics to the log each second.
 *   id: id of the instance
 *   timeoutMs: time-out in milliseconds, negative for none
 * Returns 0. LWP_TOO_MANY_REFERENCES at the time-out: the instance is a zombie then, which takes no
 * references and may be deleted again. -1 after a log message when id is 0, no instance or being
 * deleted already, or the caller is the instance's own thread or a constructor that its creation
 * runs. The result of a destructor that failed, after a log message: the instance's place is lost
 * then. */
VORN_API int LwpInstDelete(uint64_t id, int32_t timeoutMs);

/* Returns the instance's name; NULL after a log message when there is no such instance.
 *   id: id of the instance */
VORN_API const char *LwpInstGetName(uint64_t id);

/* --- Context --- */

/* Returns the id of the calling thread's current instance; LWP_NONE when there is none. */
VORN_API uint64_t LwpCtxCurrent(void);

/* Makes newId the calling thread's current instance; LWP_NONE, and an id of no instance (after a
 * log message): none; 0: leaves it. The id of the one before goes to *oldId unless oldId is NULL. A
 * thread that is attached should hold a reference: attaching takes none.
 *   newId: id of the instance
 *   oldId: where the id of the instance before goes, or NULL
 * Returns 0. */
VORN_API int LwpCtxAttach(uint64_t newId, uint64_t *oldId);

/* Notes a switch in the calling thread's record, with 9 return addresses from the caller of the
 * function that called this one, 0 for those that the stack does not have. Does nothing where the
 * thread has no record or no address can be found.
 *   oldId: id of the instance that is left
 *   newId: id of the instance that is entered */
VORN_API void LwpCtxDbgSwitch(uint64_t oldId, uint64_t newId);

/* Shows the calling thread's last 3 switches through print, while the trace is on. Signal-safe as
 * far as print is.
 *   print: function that each line goes through */
VORN_API void LwpCtxSwitchShow(vorn_print_f print);

/* The module's callback of the exception chain: LwpCtxSwitchShow(evlog_original). Ignores its
 * arguments and returns 1. */
struct vorn_notifier_block;

/* The module's callback of the exception chain: LwpCtxSwitchShow(evlog_original). Ignores its
 * arguments.
 *   block: not used
 *   action: not used
 *   data: not used
 * Returns 1. */
VORN_API int LwpExceptNotifyFn(struct vorn_notifier_block *block, unsigned long action, void *data);

/* --- Statistics of callers --- */

/* What a place in the program counts. */
typedef struct lwp_auto_stat {
  uint64_t address; /* the return address of the first call from there */
  uint64_t count;   /* the place's own to increment */
} lwp_auto_stat_s;

/* Gives the calling place an entry of the table "LWP_GET_INST": *slot, which the place keeps in a
 * static variable that begins as NULL, is set once and left then. There are 1024 entries of each
 * kind; later places share the last. Does nothing when slot is NULL.
 *   slot: variable of the calling place */
VORN_API void LwpAutoStatGetInst(lwp_auto_stat_s **slot);

/* Gives the calling place an entry of the table "LWP_PUT_INST", as LwpAutoStatGetInst does of its
 * own.
 *   slot: variable of the calling place */
VORN_API void LwpAutoStatPutInst(lwp_auto_stat_s **slot);

/* Shows both tables through print, each line with suffix at its end; none that is empty.
 *   print: function that each line goes through
 *   suffix: text at the end of each line */
VORN_API void LwpShowAutoStatAll(vorn_print_f print, const char *suffix);

/* --- Variables --- */

/* What makes and ends a variable of an instance, each may be NULL. Both get the instance's id and
 * return 0, or another value on failure. A constructor finds the default value in the variable. It
 * must not wait for another thread that creates an instance or registers a variable. */
typedef struct lwp_var_ops {
  int (*constructor)(uint64_t instId, void *arg); /* makes it */
  void *constructorArg;                           /* its second argument */
  int (*destructor)(uint64_t instId, void *arg);  /* ends it */
  void *destructorArg;                            /* its second argument */
} lwp_var_ops_s;

/* Registers a variable of size bytes, at most 8, for good, and constructs it in every instance;
 * waits for those that are being created. name is borrowed. *ops is copied; NULL: neither function.
 * The id goes to *varId unless that is NULL, before the constructors run.
 *   name: name of the variable
 *   defaultValue: where the default value stands, size bytes
 *   size: bytes of the variable, at most 8
 *   ops: constructor and destructor, or NULL
 *   varId: where the id goes, or NULL
 * Returns the id. LWP_NONE after a log message when size is above 8, defaultValue is NULL, there
 * are too many variables, or a constructor fails: in this case alone the variable is registered. */
VORN_API uint64_t LwpVarRegister(const char *name, const void *defaultValue, size_t size,
                                 const lwp_var_ops_s *ops, uint64_t *varId);

/* Runs LwpVarConstructor for every instance in its normal state; waits for those that are being
 * created.
 * Returns 0, or what failed. */
VORN_API int LwpVarUpdate(void);

/* Constructs what variables an instance lacks, in the order of their registration; blocks on
 * another thread that does so. Where a constructor fails, the destructors of those constructed with
 * it run in reverse order.
 *   instId: id of the instance
 * Returns 0; the constructor's result after a log message; -1 after an error message when there is
 * no such instance. */
VORN_API int LwpVarConstructor(uint64_t instId);

/* Runs the destructors of an instance's variables, the last first, until one fails.
 *   instId: id of the instance
 * Returns 0; that one's result after a log message; -1 after an error message when there is no such
 * instance. LwpInstDelete does it. */
VORN_API int LwpVarDestructor(uint64_t instId);

/* Allocates an instance's values, all 0.
 *   area: values of an instance
 * Returns 0; -1 after a log message when memory is short. */
VORN_API int LwpVarMalloc(lwp_var_area_s *area);

/* Frees an instance's values and makes the pointer NULL.
 *   area: values of an instance */
VORN_API void LwpVarFree(lwp_var_area_s *area);

/* Returns the address of the variable's default value; NULL when there is no such variable.
 *   varId: id of the variable */
VORN_API void *LwpVarDef(uint64_t varId);

/* Returns the address of the variable's value in an instance; NULL after a log message when there
 * is no such place.
 *   instId: id of the instance
 *   varId: id of the variable */
VORN_API void *LwpVarRaw(uint64_t instId, uint64_t varId);

/* Returns the variable's name; "Invalid varId" when there is none.
 *   varId: id of the variable */
VORN_API const char *LwpVarGetName(uint64_t varId);

/* Shows the values of all variables in every instance in its normal state through print.
 *   print: function that each line goes through */
VORN_API void LwpVarShowAll(vorn_print_f print);

/* Shows the value of the variable with this name in every instance in its normal state through
 * print.
 *   print: function that each line goes through
 *   varName: name of the variable */
VORN_API void LwpVarShowVarInfo(vorn_print_f print, const char *varName);

VORN_END_DECLS

#endif
