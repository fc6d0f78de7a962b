// test-wraps: __cxa_demangle open syscall
// test-without: log_capture
// test-links: evlog
// Tests fault signals and their reports.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sig_calltrace.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "base/log.hpp"
#include "base/mutex.hpp"
#include "evlog.h"
#include "support/scratch.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_exception.h"
#include "vorn_sched_work.h"
#include "vorn_sem_enhance.h"
#include "vorn_symbol.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true; // which take the heap's errors and a smashed stack for themselves
#else
constexpr bool kSanitized = false;
#endif

namespace {

using Work = std::function<void()>;

volatile bool g_fault_in_demangler, g_fault_in_clock;
long g_part_timer = 0;
itimerspec g_part_limit{};

__attribute__((noinline, no_sanitize("undefined"), no_sanitize_address)) void fault() {
  static volatile std::uintptr_t nowhere = 0x10;
  *reinterpret_cast<volatile int *>(nowhere) = 1;
}

} // namespace

extern "C" {
char *__real___cxa_demangle(const char *, char *, std::size_t *, int *);
char *__wrap___cxa_demangle(const char *name, char *buffer, std::size_t *size, int *status) {
  if (g_fault_in_demangler) fault();
  return __real___cxa_demangle(name, buffer, size, status);
}

// A directory of the test's stands for /var/log/dr.
int __real_open(const char *path, int flags, mode_t mode);
int __wrap_open(const char *path, int flags, mode_t mode) {
  constexpr std::string_view kReal = "/var/log/dr/";
  return __real_open(path + (std::string_view(path).starts_with(kReal) ? kReal.size() : 0), flags,
                     mode);
}

// Keeps the timer of a report's part.
long __real_syscall(long number, ...);
long __wrap_syscall(long number, long a, long b, long c, long d, long e, long f) {
  if (number == SYS_timer_settime) {
    g_part_timer = a;
    g_part_limit = *reinterpret_cast<const itimerspec *>(c);
  }
  return __real_syscall(number, a, b, c, d, e, f);
}

// The log calls it with its mutex held.
tm *localtime_r(const time_t *time, tm *out) {
  if (g_fault_in_clock) fault();
  return gmtime_r(time, out);
}
}

namespace {

void wait_forever() {
  while (pause() < 0) {
  }
}

template <class Condition> void wait_until(Condition condition) {
  while (!condition())
    usleep(1000);
}

void in_library_thread(const Work &work) {
  static Work kept;
  kept = work;
  pthread_t thread;
  const auto entry = [](void *) -> void * {
    vorn_thrd_setname("victim");
    kept();
    return nullptr;
  };
  if (create_thread_nopreempt_raw(entry, nullptr, &thread) == 0) wait_forever();
}

void in_foreign_thread(const Work &work) { std::thread(work).join(); }

struct End {
  int signal; // or minus the exit code
  std::string log;

  int count(const std::string &text) const {
    int found = 0;
    for (std::size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1))
      ++found;
    return found;
  }
  bool has(const std::string &text) const { return log.find(text) != log.npos; }
};

// Returns the end of a child that logs to its own file and does the work. Kills it if it hangs.
End run(const Work &work) {
  const scratch::Directory directory;
  const pid_t child = fork();
  if (child == 0) {
    const rlimit no_core{0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    if (chdir(directory.path().c_str()) != 0 || evlog_init("child", ".") != 0) _exit(99);
    work();
    _exit(0);
  }
  int status = 0xff00;
  for (int i = 0; child > 0 && waitpid(child, &status, WNOHANG) == 0; ++i) {
    if (i == 7000) kill(child, SIGKILL);
    usleep(1000);
  }
  return {WIFSIGNALED(status) ? WTERMSIG(status) : -WEXITSTATUS(status),
          scratch::read_file(directory / "child.log")};
}

Work g_in_chain;

int note_call(vorn_notifier_block_s *, unsigned long action, void *argument) {
  const auto *data = static_cast<const vorn_exception_data_s *>(argument);
  const auto *words = static_cast<const std::uint64_t *>(data->regs);
  const auto *info = static_cast<const siginfo_t *>(data->siginfo);
  evlog_original("chain called: %lu %d %u %d %d", action, info->si_signo, data->arg5,
                 static_cast<int>(data->arg6) == gettid(), data->arg4 == words[VORN_FAULT_PC]);
  if (g_in_chain) g_in_chain();
  return 0;
}

End die(const Work &work) {
  return run([&] {
    static vorn_notifier_block_s noting{note_call, nullptr, 5};
    vorn_thread_signal_init();
    vorn_exception_chain_register(&noting);
    work();
  });
}

TEST(Fault, EverySignalEndsTheProcessOrDoesNot) {
  for (const int signal : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV, SIGTERM, SIGSTKFLT,
                           SIGXCPU, SIGXFSZ, SIGPWR, SIGSYS}) {
    const std::string name = std::string("SIG") + sigabbrev_np(signal);
    const std::string number = std::to_string(signal);
    const End end = die([&] { in_library_thread([&] { raise(signal); }); });
    ASSERT_EQ(end.signal, signal);
    for (const std::string &text :
         {", thrd=victim, sig = [" + number + "], " + name, ". <1>, sig " + name,
          "chain called: 0 " + number + " " + number + " 1 1", std::string("(sync)get OS_STACK"),
          std::string("dump_stack info Success")})
      EXPECT_EQ(end.count(text), 1) << text << "\n" << end.log;
    EXPECT_TRUE(end.has("0000 ...") && end.has(">      R8: ") && end.has(">     R15: "));
  }
  const End end = die([] {
    for (const int signal : {SIGUSR2, SIGPIPE, SIGALRM, SIGTTIN, SIGTTOU, SIGVTALRM, SIGPROF, SIGIO,
                             SIGTASKTRACK, SIGHUP}) {
      errno = signal;
      raise(signal);
      if (errno != signal) _exit(1);
    }
  });
  EXPECT_EQ(end.signal, 0);
  for (const char *text : {"Critical fault", ". <1>, sig SIG", "dump_stack info Success"})
    EXPECT_EQ(end.count(text), 9) << text;
  EXPECT_FALSE(end.has("0000 ...") || end.has("chain called"));
}

[[gnu::noinline]] int recurse(int depth) {
  volatile char room[512] = {};
  room[0] = 1;
  return depth < 0 ? 0 : recurse(depth + room[0]) + room[0];
}
void overflow() { recurse(0); }

#ifdef __x86_64__
void smash_frame_pointer() { asm volatile("movq $0x10, %rbp; movq (%rbp), %rax"); }
void smash_stack_pointer() { asm volatile("movq $0x18, %rsp; pushq %rax"); }
#else
void smash_frame_pointer() { asm volatile("mov x29, #0x10; ldr x0, [x29]"); }
void smash_stack_pointer() { asm volatile("mov x0, #0x10; mov sp, x0; str x0, [sp]"); }
#endif

void call_nothing() { reinterpret_cast<void (*)()>(std::uintptr_t{4096})(); }

void corrupt_heap() {
  char *volatile blocks[20];
  for (auto &block : blocks)
    block = static_cast<char *>(std::malloc(2000));
  for (auto &block : blocks)
    std::memset(block - 16, 0xff, 16);
  for (auto &block : blocks)
    std::free(block);
}

void fault_in_symbol_lock() {
  vorn_symbol_fini();
  g_fault_in_demangler = true;
  vorn_symbol_init();
}

void fault_in_gate() {
  static constinit vorn::Mutex mutex;
  const vorn::MutexGuard hold{mutex}; // in the fork gate, too
  fault();
}

void fault_without_record() {
  vorn::thread::t_record = reinterpret_cast<vorn_thread_s *>(0x10);
  fault();
}

void fault_in_log() {
  g_fault_in_clock = true;
  sleep(1);
  VORN_LOG(vorn::kError, "a new second");
}

void fault_in_hook() {
  const auto hook = [](unsigned long) { return fault(), -1; };
  static const vorn_lwt_stack_ops_s ops{hook, nullptr};
  register_lwt_stack_ops(&ops);
  raise(SIGBUS);
}

template <void (*kWork)()> void die_in_chain() {
  g_in_chain = kWork;
  raise(SIGTERM);
}

void be_killed() {
  for (int i = 0; i < 9; ++i)
    raise(SIGTERM);
}

// The ten seconds of the part are over at once.
void wait_for_limit() {
  const itimerspec soon{{}, {0, 1000}};
  if (g_part_limit.it_value.tv_sec == 10)
    syscall(SYS_timer_settime, g_part_timer, 0, &soon, nullptr);
  wait_forever();
}

TEST(Fault, TheHardCasesEndAsWell) {
  const struct {
    void (*thread)(const Work &);
    void (*work)();
    int signal;
    const char *texts[2];
  } cases[] = {
      // the sanitizers take these for themselves
      {in_library_thread, overflow, SIGSEGV, {"Try to dump OS stack", "::recurse(int)"}},
      {nullptr, overflow, SIGSEGV, {"func=(anonymous namespace)::rec", "::recurse(int)"}},
      {in_library_thread, smash_frame_pointer, SIGSEGV, {"suspicious: outside", "get OS_STACK"}},
      {in_library_thread, smash_stack_pointer, SIGSEGV, {"info by stack addr(0x1", "start_raw"}},
      {in_library_thread, call_nothing, SIGSEGV, {"0x1000 func=NULL+0x1000 file=NULL ", "_raw"}},
      {nullptr, corrupt_heap, SIGABRT, {"sig = [6], SIGABRT", "Success"}},
      {in_library_thread, fault, SIGSEGV, {"::fault()+0x", "vorn::thread::start_raw"}},
      {in_foreign_thread, fault, SIGSEGV, {" func=(anonymous namespace)::fault()+0x", "00000001"}},
      {nullptr, fault_in_symbol_lock, SIGSEGV, {"Critical fault", "Success"}},
      {nullptr, fault_in_gate, SIGSEGV, {"fault()+0x", "Success"}},
      {in_library_thread, fault_without_record, SIGSEGV, {"=victim", "desc(INVALID_STACK)"}},
      {nullptr, fault_in_log, SIGSEGV, {"fault()+0x", "Success"}},
      {in_library_thread, fault_in_hook, SIGBUS, {"<1>, sig SIGSEGV", "Stack Info"}},
      {nullptr, die_in_chain<abort>, SIGTERM, {"<1>, sig SIGABRT", "Success"}},
      {nullptr, die_in_chain<be_killed>, SIGTERM, {"<1>, sig SIGTERM", "end: ret 0."}},
      {nullptr, die_in_chain<wait_for_limit>, SIGTERM, {"<1>, sig SIGTERM", "Success"}},
  };
  for (const auto &each : cases) {
    if (kSanitized && &each - cases < 6) continue;
    SCOPED_TRACE(&each - cases);
    const End end = die([&] { each.thread ? each.thread(each.work) : each.work(); });
    ASSERT_EQ(end.signal, each.signal) << end.log;
    for (const char *text : each.texts)
      EXPECT_TRUE(end.has(text)) << text << "\n" << end.log;
    EXPECT_EQ(end.count("chain called"), 1) << end.log;
  }
}

TEST(Fault, AListInsteadOfTheUsualSignals) {
  constexpr unsigned int kNone = 4000000000u;
  const unsigned int list[] = {SIGTERM, 128,   9,     64,    kNone, kNone, kNone, kNone,
                               kNone,   kNone, kNone, kNone, kNone, 65,    0};
  const End end = run([&] {
    if (vorn_thread_signal_flag_get() != 0 || is_dump_stack_enabled() != -1) _exit(1);
    if (vorn_thread_signal_init_with_list(nullptr, nullptr, 1) != -1) _exit(2);
    if (vorn_thread_signal_init_with_list(nullptr, list, 15) != 0) _exit(3);
    vorn_thread_signal_init(); // too late
    if (vorn_thread_signal_flag_get() != 1 || is_dump_stack_enabled() != 0) _exit(4);
    raise(SIGTASKTRACK);
    struct sigaction action {};
    sigaction(SIGSEGV, nullptr, &action);
    if (action.sa_sigaction != nullptr && !kSanitized) _exit(5);
    raise(SIGTERM);
  });
  EXPECT_EQ(end.signal, SIGTERM);
  std::string text = "signal init with list(15, 128, 9, 64, "; // 128 characters do not fit
  for (int i = 0; i < 9; ++i)
    text += "4000000000, ";
  EXPECT_TRUE(end.has(text + ").")) << end.log;
  for (const char *refused : {"l 128 of", "l 9 of", "l 65 of", "l 0 of"})
    EXPECT_EQ(end.count(refused), 1) << refused;
  EXPECT_EQ(end.count(" E 381 "), 14); // with that of the list that is NULL
  EXPECT_TRUE(end.has("sig = [15], sigList[i]") && end.has("sig = [61], SIGTASKTRACK"));
}

TEST(Fault, ExitWithThreadsRunning) {
  const End end = run([] {
    vorn_thread_signal_init();
    vorn_thread_signal_init();
    std::thread([] {
      for (;;)
        VORN_LOG(vorn::kDebug, "busy");
    }).detach();
    std::exit(0);
  });
  EXPECT_EQ(end.signal, 0);
  for (const char *text : {" E 381 ", "exit_callback!", "Start dump stack RIP="})
    EXPECT_EQ(end.count(text), 1) << end.log;
}

TEST(Fault, CoreDumpFlag) {
  unsigned int flag = 7;
  EXPECT_TRUE(vorn_thread_coredump_flag_get(&flag) == 0 && flag == 0);
  vorn_thread_set_coredump_on();
  EXPECT_TRUE(vorn_thread_coredump_flag_get(&flag) == 0 && flag == 1);
  vorn_thread_set_coredump_off();
  EXPECT_TRUE(vorn_thread_coredump_flag_get(&flag) == 0 && flag == 0);
  EXPECT_EQ(vorn_thread_coredump_flag_get(nullptr), -1);
  EXPECT_EQ(vorn_signal_exit_notify(SIGTERM, nullptr, nullptr), 0);
}

// Three threads are held in their dumps; a fourth is refused, a fatal signal is not.
TEST(Request, FourDumpsAtOnce) {
  static std::atomic<int> held{0};
  static std::atomic<bool> hold{true};
  const End end = run([] {
    const auto hook = [](unsigned long) {
      ++held;
      wait_until([] { return !hold; });
      return -1;
    };
    static const vorn_lwt_stack_ops_s ops{hook, nullptr};
    register_lwt_stack_ops(&ops);
    for (int i = 1; i <= 3; ++i) {
      static std::atomic<int> tid;
      tid = 0;
      std::thread([] {
        usleep(1); // the thread sanitizer loses a signal that arrives during a thread's first wait
        tid = gettid();
        wait_forever();
      }).detach();
      wait_until([] { return tid != 0; });
      if (dump_thread_stack_sig(getpid(), tid) != 0) _exit(1);
      wait_until([=] { return held == i; });
    }
    raise(SIGTASKTRACK);
    evlog_original("refused");
    hold = false;
    wait_until([] { return raise(SIGTASKTRACK) == 0 && held == 4; }); // there is room again
    if (dump_thread_stack_sig(getpid(), 0x7ffffff0) != -1 || errno != ESRCH) _exit(2);
  });
  EXPECT_EQ(end.signal, 0);
  const End first{0, end.log.substr(0, end.log.find("refused"))};
  for (const char *text : {"fault handler reentrant<4> too much. sig 61", ". <1>, sig SIGTASKTRACK",
                           ". <2>, sig SIGTASKTRACK", ". <3>, sig SIGTASKTRACK"})
    EXPECT_EQ(first.count(text), 1) << text;
  EXPECT_TRUE(end.has("tid=2147483632, ret=-1, errno=3."));
}

TEST(Request, BacktraceToAFile) {
  char name[32] = "";
  ASSERT_EQ(vorn_get_process_name(name, sizeof name), 0);
  const End end = run([&] {
    if (dump_signal_init() != 0) _exit(1);
    const auto ask = [] { return dump_thread_stack_sig_roc(getpid(), gettid()); };
    if (ask() + ask() + ask() + ask() != 0) _exit(2);
    if (dump_thread_stack_sig_roc(getpid(), 0x7ffffff0) != -1 || errno != ESRCH) _exit(3);
    const std::string file =
        scratch::read_file("block-stack-" + std::string(name) + "-" + std::to_string(gettid()));
    if (file.find("---dump_time:" + std::to_string(time(nullptr)).substr(0, 7)) != 0) _exit(4);
    if (std::strlen(g_tag_buf) != 63) _exit(5);
    if (file.find("\n---" + std::string(g_tag_buf) + "---\n") == file.npos) _exit(6);
    if (file.find("sig_calltrace_test(") == file.npos) _exit(7);
    std::strcpy(g_tag_buf, "x"); // so that the third would leave no room for the NUL
    if (ask() + ask() + ask() != 0 || std::strlen(g_tag_buf) != 43) _exit(8);
  });
  EXPECT_EQ(end.signal, 0) << end.log;
  EXPECT_EQ(end.count(" I 999 "), 16);
  EXPECT_EQ(end.count("ret=0, errno=0."), 7);
}

// Threads that allocate, lock, wait and end are asked for their stacks all the time: nothing that
// waits comes back early, and nothing is lost.
TEST(Request, Storm) {
  const End end = run([] {
    vorn_thread_signal_init();
    evlog_loglevel_set(381, EVLOG_ERROR);
    static vorn_sem_enhance_s given;
    static vorn_sem_enhance_s taken;
    static std::atomic<int> tid{0}, rounds{0}, wrong{0};
    static std::atomic<bool> may_go{false};
    vorn_sem_enhance_init(&given, 0);
    vorn_sem_enhance_init(&taken, 0);
    std::thread([] {
      for (;; usleep(1000)) // a dump takes less
        if (tid != 0) syscall(SYS_tgkill, getpid(), tid.load(), SIGTASKTRACK);
    }).detach();
    const auto entry = [](void *) -> void * {
      tid = gettid();
      for (std::size_t size = 100; size < 900; size += 40)
        vorn_thrd_setname("storm %zu", std::string(size, 'x').size());
      vorn_sem_enhance_down(&given);
      if (!may_go.exchange(false)) ++wrong;
      ++rounds;
      vorn_sem_enhance_up(&taken);
      return nullptr;
    };
    for (int i = 1; i <= (kSanitized ? 40 : 200); ++i) {
      pthread_t thread;
      if (create_thread_nopreempt_raw(entry, nullptr, &thread) != 0) _exit(99);
      usleep(100);
      may_go = true;
      vorn_sem_enhance_up(&given);
      vorn_sem_enhance_down(&taken);
      if (rounds != i) ++wrong;
    }
    _exit(wrong != 0);
  });
  EXPECT_EQ(end.signal, 0) << end.log;
}

} // namespace
