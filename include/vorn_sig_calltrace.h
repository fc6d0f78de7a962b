/* Fault signals: the report that a thread writes to the log when a fatal signal ends the process,
 * and dumps of a running thread's stack on request.
 *
 * The handler runs on the thread's alternate signal stack. Every thread of the library has one, and
 * the thread that installs the handlers gets one if it has none. If a thread that another library
 * created overflows its stack, the kernel kills the process without a report.
 *
 * SIGUSR2, SIGTASKTRACK, SIGPIPE, SIGALRM, SIGTTIN, SIGTTOU, SIGVTALRM, SIGPROF and SIGIO are
 * dump-only: the thread writes its stack and continues, or writes nothing if three such dumps are
 * already in progress in the process. Every other signal that the library handles is fatal: the
 * thread writes its report, calls the exception chain (vorn_exception.h), sets the signal's default
 * action and sends itself the signal. It writes the report through evlog_original; each line begins
 * with "<%d>", the kernel's id of the thread.
 *
 * A report always ends: after a fault, or after ten seconds in one part, it continues with the next
 * part. The report does not allocate, does not take a lock that a normal thread may hold, and reads
 * through a pointer only after the kernel has found the memory readable.
 *
 * The system restarts a system call that a dump-only signal interrupts if it can (SA_RESTART);
 * other system calls of the thread end with EINTR. The library repeats its own system calls.
 *
 * Unless a function says otherwise, any thread may call it, it is not safe in a signal handler, it
 * is not a cancellation point, it keeps errno, and it returns 0, or logs an error and returns
 * -1. */
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

/* Number of registers that the exception chain gets, each a 64-bit word: on AArch64 x0 to x30; on
 * x86-64 rax, rbx, rcx, rdx, rsi, rdi, rbp, r8 to r15 and zeros; then the three registers below. */
#define VORN_FAULT_REGISTERS 34

/* Index of the stack pointer among the registers. */
#define VORN_FAULT_SP 31

/* Index of the program counter among the registers. */
#define VORN_FAULT_PC 32

/* Index of the processor state (pstate, rflags) among the registers. */
#define VORN_FAULT_STATE 33

/* --- Installation --- */

/* Installs the handlers, once per process. vorn_Init and the creation of the first thread call this
 * function. Builds the symbol table, ignores SIGHUP, registers vorn_thread_exit_callback with
 * atexit(3), and installs handlers for SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV, SIGUSR2,
 * SIGPIPE, SIGALRM, SIGTERM, SIGSTKFLT, SIGTTIN, SIGTTOU, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF,
 * SIGIO, SIGPWR, SIGSYS and SIGTASKTRACK. A service that has its own handler for one of them must
 * set it after this call.
 * Returns 0. */
VORN_API int vorn_thread_signal_init(void);

/* Installs the handlers as vorn_thread_signal_init does, but only for the count signals of the list
 * and for SIGTASKTRACK. Call it before vorn_Init. For a number that is not a signal, such as 128 or
 * more, logs an error and ignores it. argument is not used.
 *   argument: not used
 *   list: numbers of the signals
 *   count: number of signals in the list
 * Returns 0; logs an error and returns -1 if count is not 0 and the list is NULL. */
VORN_API int vorn_thread_signal_init_with_list(void *argument, const unsigned int *list,
                                               unsigned int count);

/* Returns 1 after one of the two functions above has run; before that, 0. Signal-safe. */
VORN_API int vorn_thread_signal_flag_get(void);

/* Returns 0 after one of the two functions above has run; before that, -1. Signal-safe. */
VORN_API int is_dump_stack_enabled(void);

/* Installs only the handler of SIGTASKTRACK, once per process.
 * Returns 0. */
VORN_API int auto_install_dump_stack_signal(void);

/* Stores that a core dump is wanted. The library keeps this flag for services and does not act on
 * it. Signal-safe.
 * Returns 0. */
VORN_API int vorn_thread_set_coredump_on(void);

/* Stores that no core dump is wanted. Signal-safe.
 * Returns 0. */
VORN_API int vorn_thread_set_coredump_off(void);

/* Stores 1 in *out if a core dump is wanted; otherwise, and by default, 0. Signal-safe.
 *   out: where the flag goes
 * Returns 0; -1 without a log message if out is NULL. */
VORN_API int vorn_thread_coredump_flag_get(unsigned int *out);

/* --- Dumps on request --- */

/* Sends SIGTASKTRACK to thread tid of process pid, which then writes its stack to its log. First
 * installs the handler in the calling process. The signal kills a process without the handler.
 *   pid: the process id
 *   tid: kernel id of the thread
 * Returns the result of tgkill(2): -1 with errno if there is no such thread. */
VORN_API int dump_thread_stack_sig(pid_t pid, pid_t tid);

/* Installs the handler of signal 59. A thread that gets the signal appends its backtrace to the
 * file "/var/log/dr/block-stack-NAME-TID", named with the process's name and the thread's id.
 * Returns 0; logs an error and returns -1 if the process's name cannot be read or the handler
 * cannot be installed. */
VORN_API int dump_signal_init(void);

/* Appends "dump_time:" and the time in seconds to g_tag_buf, and sends signal 59 to thread tid of
 * process pid. The tag collects the requests until the next one does not fit; then it stays
 * unchanged. Logs under module 999.
 *   pid: the process id
 *   tid: kernel id of the thread
 * Returns the result of tgkill(2), with errno. */
VORN_API int dump_thread_stack_sig_roc(pid_t pid, pid_t tid);

/* The text at the top of each backtrace in a file. Ends in a NUL. */
VORN_API extern char g_tag_buf[64];

/* The handler of signal 59: appends the calling thread's backtrace to its file. Does nothing if the
 * file cannot be opened. Signal-safe after dump_signal_init has run.
 *   signal: number of the signal */
VORN_API void dump_stack_by_sig(int signal);

/* Writes the calling thread's stack to the log: the frames from that of the caller on.
 * Signal-safe. */
VORN_API void vorn_thread_dump_stack(void);

/* --- What the handler calls --- */

/* Calls the exception chain with action 0, the siginfo_t and the registers of the ucontext_t (zeros
 * if context is NULL). The other values for the chain are the program counter, the signal and the
 * kernel's id of the thread.
 *   signal: number of the signal
 *   siginfo: siginfo_t of the signal
 *   context: ucontext_t of the signal, or NULL
 * Returns what the chain returns. Signal-safe if the chain is. */
VORN_API int vorn_signal_exit_notify(int signal, void *siginfo, void *context);

/* Runs at exit: logs the error "exit_callback!" and the calling thread's stack. */
VORN_API void vorn_thread_exit_callback(void);

VORN_END_DECLS

#endif
