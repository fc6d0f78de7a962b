/* The exception chain, whose callbacks run in a thread that receives a fatal signal, so that a
 * service can save its state before the process dies; and the hook that resets a watchdog.
 *
 * The callbacks run in a signal handler, on the thread's signal stack, with the chain's lock held.
 * They must not allocate, lock, or call a function that does. Each callback gets the action, and as
 * data a vorn_exception_data_s. Otherwise, the chain works as vorn_notifier.h describes. No
 * function is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_EXCEPTION_H
#define VORN_EXCEPTION_H

#include "vorn_api.h"
#include "vorn_notifier.h"

VORN_BEGIN_DECLS

/* The data of a callback of the exception chain: the arguments of vorn_exception_call_chain, valid
 * during the call. */
typedef struct vorn_exception_data {
  void *regs;    /* the registers at the fault */
  void *siginfo; /* the siginfo_t of the signal */
  uint64_t arg4; /* from the handler of fatal signals: the program counter */
  uint32_t arg5; /* the signal */
  uint32_t arg6; /* the kernel's id of the thread */
} vorn_exception_data_s;

/* Installs the handlers of the usual fatal signals with vorn_thread_signal_init
 * (vorn_sig_calltrace.h) and ignores its result.
 * Returns 0. */
VORN_API int vorn_exception_init(void);

/* Installs the handlers of the sigNum signals of a list with vorn_thread_signal_init_with_list
 * (vorn_sig_calltrace.h) and ignores its result.
 *   arg: not used
 *   sigList: numbers of the signals
 *   sigNum: number of signals in the list
 * Returns 0; logs an error and returns -1 if sigList is NULL or sigNum is 0. */
VORN_API int vorn_exception_init_with_list(void *arg, const unsigned int *sigList,
                                           unsigned int sigNum);

/* Registers a block on the exception chain, with the file and line of the caller.
 *   block: block to register
 * Returns what vorn_exception_chain_register__ returns. */
#define vorn_exception_chain_register(block)                                                       \
  vorn_exception_chain_register__(block, __FILE__, __LINE__)

/* Unregisters a block of the exception chain, with the file and line of the caller.
 *   block: block to unregister
 * Returns what vorn_exception_chain_unregister__ returns. */
#define vorn_exception_chain_unregister(block)                                                     \
  vorn_exception_chain_unregister__(block, __FILE__, __LINE__)

/* Registers a block on the exception chain with vorn_atomic_notifier_chain_register__. Not safe in
 * a signal handler.
 *   block: block to register or to unregister
 *   file: source file of the caller
 *   line: line of the caller
 * Returns what vorn_atomic_notifier_chain_register__ returns. */
VORN_API int vorn_exception_chain_register__(vorn_notifier_block_s *block, const char *file,
                                             int line);

/* Unregisters a block of the exception chain with vorn_atomic_notifier_chain_unregister__. Not safe
 * in a signal handler.
 *   block: block to register or to unregister
 *   file: source file of the caller
 *   line: line of the caller
 * Returns what vorn_atomic_notifier_chain_unregister__ returns. */
VORN_API int vorn_exception_chain_unregister__(vorn_notifier_block_s *block, const char *file,
                                               int line);

/* Calls the exception chain. Never waits, because the faulting thread may hold the chain's lock.
 *   action: action for the callbacks
 *   siginfo: siginfo_t of the signal, for the callbacks
 *   regs: registers at the fault, for the callbacks
 *   arg4: further value for the callbacks
 *   arg5: further value for the callbacks
 *   arg6: further value for the callbacks
 * Returns the result of the last callback, 0 if there are no callbacks; if the lock is held, logs
 * information and returns -1. Neither locks nor allocates, except in the logging library: it is as
 * signal-safe as that library. */
VORN_API int vorn_exception_call_chain(unsigned long action, void *siginfo, void *regs,
                                       uint64_t arg4, uint32_t arg5, uint32_t arg6);

/* Resets a watchdog. The owner of the watchdog defines what value means. */
typedef int (*vorn_watchdog_reset_f)(int value);

/* Sets the function that resets the watchdog. It replaces an earlier one; NULL removes it.
 *   fn: function that resets the watchdog, or NULL
 * Returns 0. */
VORN_API int vorn_exception_watchdog_timer_func_register(vorn_watchdog_reset_f fn);

/* Calls the function that resets the watchdog.
 *   value: argument of the function
 * Returns the function's result; 0 if none is set. Signal-safe if that function is. */
VORN_API int vorn_exception_watchdog_timer_reset(int value);

VORN_END_DECLS

#endif
