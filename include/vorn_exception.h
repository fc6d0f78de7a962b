/* The exception chain: callbacks that run in a thread that takes a fatal signal, so that a service
 * can keep its state before the process dies; and the hook that resets a watchdog.
 *
 * The callbacks run in a signal handler, on the thread's signal stack, with the chain's lock held.
 * They neither allocate nor lock, and call nothing that does. Each is called with the action, and
 * its data is a vorn_exception_data_s. Otherwise vorn_notifier.h holds for the chain. No function
 * is a cancellation point. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_EXCEPTION_H
#define VORN_EXCEPTION_H

#include "vorn_api.h"
#include "vorn_notifier.h"

VORN_BEGIN_DECLS

/* What a callback of the exception chain gets as data, valid during the call: the arguments of
 * vorn_exception_call_chain. */
typedef struct vorn_exception_data {
  void *regs;    /* the registers at the fault */
  void *siginfo; /* the siginfo_t of the signal */
  uint64_t arg4; /* the handler of fatal signals: the program counter */
  uint32_t arg5; /* the signal */
  uint32_t arg6; /* the kernel's id of the thread */
} vorn_exception_data_s;

/* Installs the handlers of fatal signals, for the usual signals: vorn_thread_signal_init of
 * vorn_sig_calltrace.h, whose result is lost.
 * Returns 0. */
VORN_API int vorn_exception_init(void);

/* Installs the handlers of fatal signals, for those of a list of sigNum numbers:
 * vorn_thread_signal_init_with_list of vorn_sig_calltrace.h, whose result is lost.
 *   arg: not used
 *   sigList: numbers of the signals
 *   sigNum: how many numbers the list has
 * Returns 0; logs an error and returns -1 when sigList is NULL or sigNum is 0. */
VORN_API int vorn_exception_init_with_list(void *arg, const unsigned int *sigList,
                                           unsigned int sigNum);

/* Registers a block of the exception chain in the caller's name.
 *   block: block to put on the chain
 * Returns what vorn_exception_chain_register__ returns. */
#define vorn_exception_chain_register(block)                                                       \
  vorn_exception_chain_register__(block, __FILE__, __LINE__)

/* Takes a block off the exception chain in the caller's name.
 *   block: block to take off the chain
 * Returns what vorn_exception_chain_unregister__ returns. */
#define vorn_exception_chain_unregister(block)                                                     \
  vorn_exception_chain_unregister__(block, __FILE__, __LINE__)

/* Registers a block on the exception chain: vorn_atomic_notifier_chain_register__. Not for signal
 * handlers.
 *   block: block to put on the chain or to take off it
 *   file: source file of the caller
 *   line: line of the caller
 * Returns what vorn_atomic_notifier_chain_register__ returns. */
VORN_API int vorn_exception_chain_register__(vorn_notifier_block_s *block, const char *file,
                                             int line);

/* Takes a block off the exception chain: vorn_atomic_notifier_chain_unregister__. Not for signal
 * handlers.
 *   block: block to put on the chain or to take off it
 *   file: source file of the caller
 *   line: line of the caller
 * Returns what vorn_atomic_notifier_chain_unregister__ returns. */
VORN_API int vorn_exception_chain_unregister__(vorn_notifier_block_s *block, const char *file,
                                               int line);

/* Calls the exception chain. Never waits, since the thread that faults may itself hold the chain's
 * lock.
 *   action: action for the callbacks
 *   siginfo: siginfo_t of the signal, for the callbacks
 *   regs: registers at the fault, for the callbacks
 *   arg4: further value for the callbacks
 *   arg5: further value for the callbacks
 *   arg6: further value for the callbacks
 * Returns the last callback's result, 0 without callbacks; -1 after an information message when the
 * lock is held. Neither locks nor allocates but in the logging library: as safe in a signal handler
 * as that is. */
VORN_API int vorn_exception_call_chain(unsigned long action, void *siginfo, void *regs,
                                       uint64_t arg4, uint32_t arg5, uint32_t arg6);

/* What resets a watchdog for so long as value says; the meaning is its owner's. */
typedef int (*vorn_watchdog_reset_f)(int value);

/* Stores the function, in the place of an earlier one; NULL: none.
 *   fn: function that resets the watchdog, or NULL
 * Returns 0. */
VORN_API int vorn_exception_watchdog_timer_func_register(vorn_watchdog_reset_f fn);

/* Calls it.
 *   value: argument of the function
 * Returns the function's result; 0 when there is none. Signal-safe as far as that function is. */
VORN_API int vorn_exception_watchdog_timer_reset(int value);

VORN_END_DECLS

#endif
