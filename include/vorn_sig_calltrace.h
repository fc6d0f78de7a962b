/* Fault signals: what a thread leaves in the log when a fatal signal ends the process, and the dump
 * of a running thread's stack on request.
 *
 * The handler runs on the thread's alternate signal stack. Every thread of the library has one, and
 * the thread that installs the handlers gets one if it has none; a thread that another library
 * created and that overflows its stack is ended by the kernel without a report.
 *
 * SIGUSR2, SIGTASKTRACK, SIGPIPE, SIGALRM, SIGTTIN, SIGTTOU, SIGVTALRM, SIGPROF and SIGIO are
 * dump-only: the thread writes its stack and goes on, unless three such dumps are under way in the
 * process already. Every other signal that is installed is fatal: the thread writes its report,
 * calls the exception chain (vorn_exception.h), sets the signal's default action and sends itself
 * the signal. The report goes through evlog_original, each line with "<%d>" and the kernel's id of
 * the thread in front.
 *
 * A report always ends. A fault during the report leads on to its next part; ten seconds in one
 * part do too. Nothing in it allocates, takes a lock that a normal thread may hold, or reads
 * through a pointer that the kernel has not found readable.
 *
 * A system call that a dump-only signal interrupts is started again where the system does that
 * (SA_RESTART); others end with EINTR, in the thread's own calls, not in those of the library.
 *
 * Unless a function says otherwise: any thread may call, it is not for signal handlers, it is no
 * cancellation point, it keeps errno, and it returns 0, or -1 after an error message. */
/* SPDX-License-Identifier: Apache-2.0 */
#ifndef VORN_SIG_CALLTRACE_H
#define VORN_SIG_CALLTRACE_H

#include <sys/types.h>

#include "vorn_api.h"

VORN_BEGIN_DECLS

/* The signal that makes a thread write its stack to the log. */
#define SIGTASKTRACK 61

/* The signal that makes a thread append its backtrace to a file. */
#define VORN_SIGNAL_BACKTRACE 59

/* Number of registers that the exception chain gets: words of 64 bits. On AArch64 x0 to x30; on
 * x86-64 rax, rbx, rcx, rdx, rsi, rdi, rbp, r8 to r15 and zeros; then those below. */
#define VORN_FAULT_REGISTERS 34

/* Index of the stack pointer among the registers. */
#define VORN_FAULT_SP 31

/* Index of the program counter among the registers. */
#define VORN_FAULT_PC 32

/* Index of the processor's state (pstate, rflags) among the registers. */
#define VORN_FAULT_STATE 33

/* --- Installation --- */

/* Installs the handlers, once in a process; start-up and the creation of the first thread do so.
 * Builds the symbol table, ignores SIGHUP, has vorn_thread_exit_callback called at exit, and
 * installs for SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV, SIGUSR2, SIGPIPE, SIGALRM,
 * SIGTERM, SIGSTKFLT, SIGTTIN, SIGTTOU, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF, SIGIO, SIGPWR, SIGSYS
 * and SIGTASKTRACK. A handler of the service's own for one of them is to be set afterwards.
 * Returns 0. */
VORN_API int vorn_thread_signal_init(void);

/* Installs the handlers as vorn_thread_signal_init does, for the count signals of the list alone,
 * and SIGTASKTRACK; to be called before start-up. A number that is no signal (128 or more among
 * them) is left out after an error message. argument is not used.
 *   argument: not used
 *   list: numbers of the signals
 *   count: how many numbers the list has
 * Returns 0; logs an error and returns -1 where count is not 0 and the list is NULL. */
VORN_API int vorn_thread_signal_init_with_list(void *argument, const unsigned int *list,
                                               unsigned int count);

/* Returns 1 once one of the two has run, else 0. Signal-safe. */
VORN_API int vorn_thread_signal_flag_get(void);

/* Returns 0 once one of the two has run, else -1. Signal-safe. */
VORN_API int is_dump_stack_enabled(void);

/* Installs the handler of SIGTASKTRACK alone, once in a process.
 * Returns 0. */
VORN_API int auto_install_dump_stack_signal(void);

/* Notes that a core is wanted. The library keeps the word for its services and does not act on it.
 * Signal-safe.
 * Returns 0. */
VORN_API int vorn_thread_set_coredump_on(void);

/* Notes that no core is wanted. Signal-safe.
 * Returns 0. */
VORN_API int vorn_thread_set_coredump_off(void);

/* Stores in *out whether a core is wanted: 1 or 0, as at the start. Signal-safe.
 *   out: where the word goes
 * Returns 0; -1 without a log message where out is NULL. */
VORN_API int vorn_thread_coredump_flag_get(unsigned int *out);

/* --- Dumps on request --- */

/* Sends SIGTASKTRACK to thread tid of process pid, which then writes its stack to its log; the
 * handler is installed first. A process without the handler dies of the signal.
 *   pid: the process id
 *   tid: kernel id of the thread
 * Returns the result of tgkill(2): -1 with errno where there is no such thread. */
VORN_API int dump_thread_stack_sig(pid_t pid, pid_t tid);

/* Makes signal 59 append the backtrace of the thread that gets it to the file
 * "/var/log/dr/block-stack-NAME-TID", of the process's name and the thread's id.
 * Returns 0; -1 after an error message where the process's name is not to be had or the handler is
 * refused. */
VORN_API int dump_signal_init(void);

/* Appends "dump_time:" and the time in seconds to g_tag_buf, and sends signal 59 to thread tid of
 * process pid. The tag gathers the requests until one more does not fit, and then stays. Logs under
 * module 999.
 *   pid: the process id
 *   tid: kernel id of the thread
 * Returns the result of tgkill(2), with errno. */
VORN_API int dump_thread_stack_sig_roc(pid_t pid, pid_t tid);

/* What stands at the top of each backtrace in a file; ends in a NUL. */
VORN_API extern char g_tag_buf[64];

/* The handler of signal 59: the calling thread's backtrace to its file; nothing where that cannot
 * be opened. Signal-safe, once dump_signal_init has run.
 *   signal: number of the signal */
VORN_API void dump_stack_by_sig(int signal);

/* Writes the calling thread's stack: its frames from the caller's on. Signal-safe. */
VORN_API void vorn_thread_dump_stack(void);

/* --- What the handler calls --- */

/* Calls the exception chain with action 0, the siginfo_t and the registers of the ucontext_t; NULL:
 * zeros. The chain's further values are the program counter, the signal and the kernel's id of the
 * thread.
 *   signal: number of the signal
 *   siginfo: siginfo_t of the signal
 *   context: ucontext_t of the signal, or NULL
 * Returns what the chain returns. As signal-safe as the chain. */
VORN_API int vorn_signal_exit_notify(int signal, void *siginfo, void *context);

/* Runs at exit: the error message "exit_callback!" and the calling thread's stack. */
VORN_API void vorn_thread_exit_callback(void);

VORN_END_DECLS

#endif
