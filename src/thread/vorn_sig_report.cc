// Handles the fault signals: dumps a thread that goes on, and reports a thread that a fatal signal
// ends.
//
// 1. The report is a list of parts. The handler removes each part from the list before it runs it.
// 2. A second fault in the same thread enters the same handler, which goes on with the next part.
// 3. A timer sends the thread the first signal if a part does not end: a callback of the exception
//    chain may wait forever, and so may a write to a console. The handler goes on with the next
//    part.
// 4. The last part ends the process by the first signal.
//
// So the handler unblocks the fault signals during a report. It drops another fatal signal that a
// process sends to the thread meanwhile: the process is ending already.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sig_calltrace.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "arch/fault_context.hpp"
#include "base/cancellation_guard.hpp"
#include "base/errno_guard.hpp"
#include "base/foreign_memory.hpp"
#include "base/fork_gate.hpp"
#include "evlog.h"
#include "symbol/vorn_symbol.hpp"
#include "thread/vorn_dump_stack.hpp"
#include "thread/vorn_sig_calltrace.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_exception.h"

namespace vorn::thread {
namespace {

constexpr int kMostDumps = 3;
constexpr int kMostFaults = 2; // in a report
constexpr time_t kPartSeconds = 10;

// The running handlers of the process.
constinit std::atomic<int> running{0};

// The handlers of other threads do not exist in a child.
const ForkChild forget_runs{[] { running.store(0, std::memory_order_relaxed); }};

enum class Part { kStart, kRegisters, kStack, kChain, kEnd };

// The report that the thread is making.
struct Report {
  pid_t pid; // 0 if there is none; differs in a child that shares the parent's memory
  int signal;
  siginfo_t *info;
  void *context;
  Part next;
  int count; // the number of running handlers at its beginning
  int faults;
  bool timed;
  int timer;
};
thread_local constinit Report t_report __attribute__((tls_model("initial-exec"))){};

bool is_dump_only(int signal) {
  switch (signal) {
  case SIGUSR2:
  case SIGTASKTRACK:
  case SIGPIPE:
  case SIGALRM:
  case SIGTTIN:
  case SIGTTOU:
  case SIGVTALRM:
  case SIGPROF:
  case SIGIO:
    return true;
  default:
    return false;
  }
}

const char *name_of(int signal) {
  const char *name = nullptr;
  if (signal >= 0 && static_cast<unsigned int>(signal) < kSignals)
    name = signal_names[signal].load(std::memory_order_relaxed);
  return name != nullptr ? name : "NULL";
}

arch::RegisterRecord record_of(const void *context) {
  if (context == nullptr) return {};
  return arch::registers_of(*static_cast<const ucontext_t *>(context));
}

// The name in the thread record, or the kernel's if the thread has no record.
struct ThreadName {
  ThreadName() {
    if (t_record != nullptr &&
        copy_foreign(reinterpret_cast<std::uintptr_t>(t_record->name), text, sizeof text)) {
      text[sizeof text - 1] = '\0';
      return;
    }
    prctl(PR_GET_NAME, text);
  }
  char text[VORN_THRD_NAME_SIZE] = "";
};

void write_start(int count, int signal, const siginfo_t *info) {
  const char local = 0;
  evlog_original("<%d>start of stack of general fault_handler() is %p. <%d>, sig %s, si %p, "
                 "si_code %08x, cpu %d",
                 gettid(), static_cast<const void *>(&local), count, name_of(signal),
                 static_cast<const void *>(info),
                 static_cast<unsigned int>(info != nullptr ? info->si_code : 0), sched_getcpu());
}

void write_register(pid_t tid, const symbol::Reader &symbols, const char *name,
                    std::uint64_t value) {
  const auto high = static_cast<unsigned int>(value >> 32);
  const auto low = static_cast<unsigned int>(value);
  symbol::Symbol symbol{};
  if (symbols.lookup(value, &symbol))
    evlog_original("<%d>%8s: %08x%08x %.300s+0x%lx", tid, name, high, low, symbol.name,
                   static_cast<unsigned long>(value - symbol.start));
  else
    evlog_original("<%d>%8s: %08x%08x", tid, name, high, low);
}

void write_program_counter(pid_t tid, const symbol::Reader &symbols, std::uint64_t value) {
  const auto *at = reinterpret_cast<const void *>(value);
  symbol::Symbol symbol{};
  unsigned long word = 0;
  if (symbols.lookup(value, &symbol)) {
    copy_foreign(value, &word, sizeof word);
    evlog_original("<%d>%s%p value=0x%lx func=%.300s+0x%lx file=%s ", tid, "RIP=", at, word,
                   symbol.name, static_cast<unsigned long>(value - symbol.start), symbol.object);
  } else {
    evlog_original("<%d>%s%p func=%s+0x%lx file=%s ", tid, "RIP=", at, "NULL", value, "NULL");
  }
}

void write_registers(int signal, const arch::RegisterRecord &record) {
  const pid_t tid = gettid();
  const ThreadName name;
  const symbol::Reader symbols;
  evlog_original("<%d>Critical fault: pid=%d, tid=%d, thrd=%s, sig = [%d], %s", tid, getpid(), tid,
                 name.text, signal, name_of(signal));
  for (const arch::NamedRegister &each : arch::kRegisters)
    write_register(tid, symbols, each.name, record.words[each.word]);
  write_program_counter(tid, symbols, record.words[VORN_FAULT_PC]);
}

// A call of a bad function pointer faults before it makes a frame: the caller is in no frame.
std::uintptr_t caller_of_nowhere(const arch::RegisterRecord &record) {
  symbol::Symbol object{};
  if (symbol::Reader().find_object(record.words[VORN_FAULT_PC], &object)) return 0;
  std::uintptr_t address = record.words[arch::kReturnWord];
  if (arch::kReturnIsOnStack && !copy_foreign(address, &address, sizeof address)) return 0;
  return arch::plain_code_address(address);
}

void write_stack(int signal, const arch::RegisterRecord &record) {
  vorn_thread_dump_sync_stack({gettid(), record.words[VORN_FAULT_SP],
                               record.words[arch::kFramePointer], caller_of_nowhere(record),
                               !is_dump_only(signal)});
}

// Unblocks the fault signals during the report: a blocked fault would end the process at once. Also
// unblocks the first signal, which the timer sends.
void let_faults_through() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGSYS, t_report.signal})
    sigaddset(&signals, signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// Makes direct system calls: the functions of the C library allocate memory.
void make_timer() {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = t_report.signal;
  event.sigev_value.sival_ptr = &t_report;
  event._sigev_un._tid = gettid();
  t_report.timed = syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &t_report.timer) == 0;
}

void limit_part() {
  const itimerspec limit{{}, {kPartSeconds, 0}};
  if (t_report.timed) syscall(SYS_timer_settime, t_report.timer, 0, &limit, nullptr);
}

bool is_expiry(const siginfo_t &info) {
  return info.si_code == SI_TIMER && info.si_value.sival_ptr == &t_report;
}

// Returns whether the signal is a fault of the thread, or its abort(3), and was not sent by a
// process.
bool is_fault(int signal, const siginfo_t &info) {
  if (signal == SIGABRT) return info.si_code != SI_USER && info.si_pid == getpid();
  return info.si_code > 0;
}

// After a signal that does not end a process by default, the thread goes on.
void end_by_first_signal() {
  const int signal = t_report.signal;
  if (t_report.timed) syscall(SYS_timer_delete, t_report.timer);
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  sigaction(signal, &action, nullptr);
  pthread_kill(pthread_self(), signal);
  t_report.pid = 0;
}

void run_part(Part part) {
  switch (part) {
  case Part::kStart:
    write_start(t_report.count, t_report.signal, t_report.info);
    break;
  case Part::kRegisters:
    write_registers(t_report.signal, record_of(t_report.context));
    break;
  case Part::kStack:
    write_stack(t_report.signal, record_of(t_report.context));
    break;
  case Part::kChain:
    running.fetch_sub(1, std::memory_order_relaxed);
    vorn_signal_exit_notify(t_report.signal, t_report.info, t_report.context);
    break;
  case Part::kEnd:
    break;
  }
}

void run_parts() {
  let_faults_through();
  while (t_report.next != Part::kEnd && t_report.pid != 0) {
    const Part part = t_report.next;
    t_report.next = static_cast<Part>(static_cast<int>(part) + 1);
    limit_part();
    run_part(part);
  }
  if (t_report.pid != 0) end_by_first_signal();
}

void begin_report(int signal, siginfo_t *info, void *context) {
  const int count = running.fetch_add(1, std::memory_order_relaxed) + 1;
  t_report = {getpid(), signal, info, context, Part::kStart, count, 0, false, 0};
  make_timer();
  run_parts();
}

void go_on_after_fault(int signal, const siginfo_t *info) {
  if (++t_report.faults > kMostFaults) t_report.next = Part::kEnd;
  let_faults_through();
  // Only once: the log itself may fault.
  if (t_report.faults == 1) write_start(t_report.count, signal, info);
  run_parts();
}

void report_fatal(int signal, siginfo_t *info, void *context) {
  if (t_report.pid != getpid()) {
    begin_report(signal, info, context);
  } else if (info == nullptr || is_fault(signal, *info) || is_expiry(*info)) {
    go_on_after_fault(signal, info);
  }
}

void vorn_thread_dump_current_stack(int signal, const void *context) {
  const arch::RegisterRecord record = record_of(context);
  write_registers(signal, record);
  write_stack(signal, record);
}

void dump_and_go_on(int signal, const siginfo_t *info, const void *context) {
  const int count = running.fetch_add(1, std::memory_order_relaxed) + 1;
  if (count > kMostDumps) {
    running.fetch_sub(1, std::memory_order_relaxed);
    evlog_original("<%d>fault handler reentrant<%d> too much. sig %d", gettid(), count, signal);
    return;
  }
  write_start(count, signal, info);
  vorn_thread_dump_current_stack(signal, context);
  running.fetch_sub(1, std::memory_order_relaxed);
}

} // namespace

void fault_handler(int signal, siginfo_t *info, void *context) {
  const ErrnoGuard errno_stays;
  const CancellationGuard off;
  if (is_dump_only(signal))
    dump_and_go_on(signal, info, context);
  else
    report_fatal(signal, info, context);
}

} // namespace vorn::thread

using namespace vorn::thread;

int vorn_signal_exit_notify(int signal, void *siginfo, void *context) {
  vorn::arch::RegisterRecord record = record_of(context);
  return vorn_exception_call_chain(0, siginfo, record.words, record.words[VORN_FAULT_PC],
                                   static_cast<std::uint32_t>(signal),
                                   static_cast<std::uint32_t>(gettid()));
}
