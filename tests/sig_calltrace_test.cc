// test-wraps: __cxa_demangle open
// test-without: log_capture
// test-links: evlog
#include "vorn_sig_calltrace.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "evlog.h"
#include "support/child.hpp"
#include "support/scratch.hpp"
#include "support/threads.hpp"
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

std::atomic<bool> g_fault_in_demangler{false};
std::atomic<bool> g_fault_in_clock{false};

[[gnu::noinline, gnu::no_sanitize("undefined"), gnu::no_sanitize_address]] void fault() {
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
  if (!std::string_view(path).starts_with(kReal)) return __real_open(path, flags, mode);
  return __real_open(path + kReal.size(), flags, mode);
}

// The log calls it with its mutex held.
tm *localtime_r(const time_t *time, tm *out) {
  if (g_fault_in_clock) fault();
  return gmtime_r(time, out);
}
}

namespace {

void in_library_thread(const Work &work) {
  static Work kept;
  kept = work;
  pthread_t thread;
  const auto entry = [](void *) -> void * {
    vorn_thrd_setname("victim");
    kept();
    return nullptr;
  };
  ASSERT_EQ(create_thread_nopreempt_raw(entry, nullptr, &thread), 0);
  for (;;)
    pause();
}

void in_foreign_thread(const Work &work) { std::thread(work).join(); }

struct End {
  int status;
  std::string log;

  int signal() const { return WIFSIGNALED(status) ? WTERMSIG(status) : 0; }
  int count(const std::string &text) const {
    int found = 0;
    for (std::size_t at = log.find(text); at != log.npos; at = log.find(text, at + 1))
      ++found;
    return found;
  }
  bool has(const std::string &text) const { return count(text) > 0; }
};

int note_call(vorn_notifier_block_s *, unsigned long, void *);
vorn_notifier_block_s g_noting{note_call, nullptr, 5};
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

// What becomes of a child that logs to a file of its own and does the work.
End run(const Work &work) {
  const scratch::Directory directory;
  const pid_t child = fork();
  if (child == 0) {
    if (chdir(directory.path().c_str()) != 0 || evlog_init("child", ".") != 0) _exit(99);
    const rlimit limit{60, 60};
    setrlimit(RLIMIT_CPU, &limit);
    work();
    _exit(0);
  }
  End end{-1, ""};
  EXPECT_GT(child, 0);
  EXPECT_EQ(waitpid(child, &end.status, 0), child);
  end.log = scratch::read_file(directory / "child.log");
  return end;
}

End die(const Work &work) {
  return run([&] {
    vorn_thread_signal_init();
    vorn_exception_chain_register(&g_noting);
    work();
  });
}

TEST(Fault, EverySignalEndsTheProcessOrDoesNot) {
  const std::map<int, const char *> fatal = {
      {SIGILL, "SIGILL"},   {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},   {SIGFPE, "SIGFPE"},
      {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGTERM, "SIGTERM"}, {SIGSTKFLT, "SIGSTKFLT"},
      {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"}, {SIGPWR, "SIGPWR"},   {SIGSYS, "SIGSYS"}};
  for (const auto &[signal, name] : fatal) {
    const End end = die([number = signal] { in_library_thread([=] { raise(number); }); });
    EXPECT_EQ(end.signal(), signal);
    EXPECT_TRUE(end.has(", thrd=victim, sig = [" + std::to_string(signal) + "], " + name)) << name;
    EXPECT_TRUE(end.has(">. <1>, sig " + std::string(name)) ||
                end.has(". <1>, sig " + std::string(name)));
    EXPECT_EQ(end.count("chain called: 0 " + std::to_string(signal) + " " + std::to_string(signal) +
                        " 1 1"),
              1);
    EXPECT_TRUE(end.has("0000 ...") && end.has("(sync)get OS_STACK"));
  }
  const End end = die([] {
    for (const int signal : {SIGUSR2, SIGPIPE, SIGALRM, SIGTTIN, SIGTTOU, SIGVTALRM, SIGPROF, SIGIO,
                             SIGTASKTRACK, SIGHUP}) {
      errno = signal;
      raise(signal);
      if (errno != signal) _exit(1);
    }
  });
  EXPECT_EQ(end.status, 0);
  EXPECT_EQ(end.count("Critical fault"), 9);
  EXPECT_EQ(end.count(". <1>, sig SIG"), 9);
  EXPECT_EQ(end.count("dump_stack info Success"), 9);
  EXPECT_FALSE(end.has("0000 ...") || end.has("chain called"));
}

// Twice, from the frames up to the registers, on each kind of thread.
TEST(Fault, TheReportNamesTheFault) {
  for (const bool library : {true, false}) {
    const End end = die([=] {
      if (library) in_library_thread(fault);
      in_foreign_thread(fault);
    });
    EXPECT_EQ(end.signal(), SIGSEGV);
    EXPECT_TRUE(end.has(" func=(anonymous namespace)::fault()+0x")) << end.log;
    EXPECT_TRUE(end.has("si_code 00000001"));
#ifdef __x86_64__
    EXPECT_TRUE(end.has(">     RAX: ") && end.has(">     R15: ") && end.has(">     RSP: "));
    EXPECT_EQ(end.count(">      R"), 2); // R8 and R9
#else
    EXPECT_TRUE(end.has(">      R0: ") && end.has(">     R30: "));
    EXPECT_EQ(end.count(">     R"), 21);
#endif
    EXPECT_EQ(end.count("dump_stack info Success"), 1);
    EXPECT_EQ(end.has("thrd=victim"), library);
    EXPECT_EQ(end.has("vorn::thread::start_raw"), library);
  }
}

TEST(Fault, LeavesACore) {
  rlimit limit{};
  getrlimit(RLIMIT_CORE, &limit);
  if (kSanitized || limit.rlim_max == 0) GTEST_SKIP() << "no cores here";
  const End end = die([&] {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_CORE, &limit);
    in_library_thread(fault);
  });
  EXPECT_EQ(end.signal(), SIGSEGV);
#ifndef VORN_TEST_EMULATED
  EXPECT_TRUE(WCOREDUMP(end.status));
#endif
}

[[gnu::noinline]] int overflow(int depth) {
  volatile char room[512] = {};
  room[0] = 1;
  return depth < 0 ? 0 : overflow(depth + room[0]) + room[0];
}

#ifdef __x86_64__
void smash_frame_pointer() { asm volatile("movq $0x10, %rbp; movq (%rbp), %rax"); }
void smash_stack_pointer() { asm volatile("movq $0x18, %rsp; pushq %rax"); }
#else
void smash_frame_pointer() { asm volatile("mov x29, #0x10; ldr x0, [x29]"); }
void smash_stack_pointer() { asm volatile("mov x0, #0x10; mov sp, x0; str x0, [sp]"); }
#endif

void corrupt_heap() {
  char *volatile blocks[20];
  for (auto &block : blocks)
    block = static_cast<char *>(std::malloc(2000));
  for (auto &block : blocks)
    std::memset(block - 16, 0xff, 16);
  for (auto &block : blocks)
    std::free(block);
}

void spend_descriptors() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_NOFILE, &none);
  fault();
}

// A fork waits for the thread, which dies inside.
void fault_in_fork_gate() {
  vorn::enter_fork_gate();
  std::thread([] { fork(); }).detach();
  usleep(100000);
  fault();
}

void fault_in_hook() {
  static const vorn_lwt_stack_ops_s ops{[](unsigned long) -> int {
                                          fault();
                                          return -1;
                                        },
                                        nullptr};
  register_lwt_stack_ops(&ops);
  raise(SIGBUS);
}

void overflow_stack() { overflow(0); }

void call_nothing() { reinterpret_cast<void (*)()>(std::uintptr_t{4096})(); }

void fault_in_symbol_lock() {
  vorn_symbol_fini();
  g_fault_in_demangler = true;
  vorn_symbol_init();
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

template <void (*kWork)()> void die_in_chain() {
  g_in_chain = kWork;
  raise(SIGTERM);
}

void be_killed() {
  for (int i = 0; i < 9; ++i)
    raise(SIGTERM);
}

void wait_forever() {
  for (;;)
    pause();
}

TEST(Fault, TheHardCasesEndAsWell) {
  constexpr bool kPlain = !kSanitized; // the sanitizers take these for themselves
  const struct {
    bool runs;
    bool in_library;
    void (*work)();
    int signal;
    const char *texts[2];
  } cases[] = {
      {kPlain, true, overflow_stack, SIGSEGV, {"Try to dump OS stack", "::overflow(int)"}},
      {kPlain,
       false,
       overflow_stack,
       SIGSEGV,
       {"func=(anonymous namespace)::over", "::overflow(int)"}},
      {kPlain, true, smash_frame_pointer, SIGSEGV, {"suspicious: outside", "(sync)get OS_STACK"}},
      {kPlain, true, smash_stack_pointer, SIGSEGV, {"info by stack addr(0x1", "start_raw"}},
      {kPlain,
       true,
       call_nothing,
       SIGSEGV,
       {"RIP=0x1000 func=NULL+0x1000 file=NULL ", "start_raw"}},
      {kPlain, false, corrupt_heap, SIGABRT, {"sig = [6], SIGABRT", "Success"}},
      {true, false, spend_descriptors, SIGSEGV, {"fault()+0x", "Success"}},
      {true, false, fault_in_symbol_lock, SIGSEGV, {"Critical fault", "Success"}},
      {true, true, fault_in_fork_gate, SIGSEGV, {"fault()+0x", "Success"}},
      {true, true, fault_without_record, SIGSEGV, {"thrd=victim", "desc(INVALID_STACK)"}},
      {true, false, fault_in_log, SIGSEGV, {"fault()+0x", "Success"}},
      {true, true, fault_in_hook, SIGBUS, {"<1>, sig SIGSEGV", "Stack Info"}},
      {true, false, die_in_chain<fault>, SIGTERM, {"<1>, sig SIGSEGV", "Success"}},
      {true, false, die_in_chain<abort>, SIGTERM, {"<1>, sig SIGABRT", "Success"}},
      {true, false, die_in_chain<be_killed>, SIGTERM, {"<1>, sig SIGTERM", "call end: ret 0."}},
      {true, false, die_in_chain<wait_forever>, SIGTERM, {"<1>, sig SIGTERM", "Success"}},
  };
  for (const auto &each : cases) {
    if (!each.runs) continue;
    SCOPED_TRACE(&each - cases);
    const End end = die([&] { each.in_library ? in_library_thread(each.work) : each.work(); });
    EXPECT_EQ(end.signal(), each.signal) << end.status;
    for (const char *text : each.texts)
      EXPECT_TRUE(end.has(text)) << text << "\n" << end.log;
    EXPECT_EQ(end.count("chain called"), 1) << end.log;
  }
}

TEST(Fault, AListInsteadOfTheUsualSignals) {
  const unsigned int list[] = {SIGTERM, 128, 4000000000u, SIGKILL, 0};
  const unsigned int many[40] = {4000000000u, 4000000000u, 4000000000u, 4000000000u,
                                 4000000000u, 4000000000u, 4000000000u, 4000000000u,
                                 4000000000u, 4000000000u, 4000000000u};
  const End end = run([&] {
    if (vorn_thread_signal_flag_get() != 0 || is_dump_stack_enabled() != -1) _exit(1);
    if (vorn_thread_signal_init_with_list(nullptr, nullptr, 1) != -1) _exit(2);
    if (vorn_thread_signal_init_with_list(nullptr, list, 5) != 0) _exit(3);
    vorn_thread_signal_init(); // too late
    if (vorn_thread_signal_flag_get() != 1 || is_dump_stack_enabled() != 0) _exit(4);
    raise(SIGTASKTRACK);
    struct sigaction action {};
    sigaction(SIGSEGV, nullptr, &action);
    if (action.sa_sigaction != nullptr && !kSanitized) _exit(5);
    raise(SIGTERM);
  });
  EXPECT_EQ(end.signal(), SIGTERM) << end.status;
  EXPECT_TRUE(end.has("signal init with list(15, 128, 4000000000, 9, 0, )."));
  for (const char *refused :
       {"Signal 128 of", "Signal 4000000000 of", "Signal 9 of", "Signal 0 of"})
    EXPECT_EQ(end.count(refused), 1) << refused;
  EXPECT_EQ(end.count(" E 381 "), 5); // with that of the list that is NULL
  EXPECT_TRUE(end.has("sig = [15], sigList[i]") && end.has("sig = [61], SIGTASKTRACK"));
  const End bounded = run([&] { vorn_thread_signal_init_with_list(nullptr, many, 40); });
  std::string text;
  for (int i = 0; i < 10; ++i)
    text += "4000000000, ";
  EXPECT_TRUE(bounded.has("list(" + text + ")."));
  const End none = run([] {
    vorn_thread_signal_init_with_list(nullptr, nullptr, 0);
    raise(SIGTASKTRACK);
    raise(SIGUSR1);
  });
  EXPECT_EQ(none.signal(), SIGUSR1);
  EXPECT_EQ(none.count("Critical fault"), 1);
}

TEST(Fault, ExitWithThreadsRunning) {
  const End end = run([] {
    vorn_thread_signal_init();
    vorn_thread_signal_init();
    for (int i = 0; i < 4; ++i)
      std::thread([] {
        for (;;)
          VORN_LOG(vorn::kDebug, "busy");
      }).detach();
    std::exit(0);
  });
  EXPECT_EQ(end.status, 0);
  EXPECT_EQ(end.count(" E 381 "), 1) << end.log;
  EXPECT_EQ(end.count("exit_callback!"), 1);
  EXPECT_EQ(end.count("Start dump stack RIP="), 1);
}

TEST(Fault, CoreDumpFlag) {
  unsigned int flag = 7;
  EXPECT_EQ(vorn_thread_coredump_flag_get(&flag), 0);
  EXPECT_EQ(flag, 0u);
  EXPECT_EQ(vorn_thread_set_coredump_on(), 0);
  EXPECT_EQ(vorn_thread_coredump_flag_get(&flag), 0);
  EXPECT_EQ(flag, 1u);
  EXPECT_EQ(vorn_thread_set_coredump_off(), 0);
  EXPECT_EQ(vorn_thread_coredump_flag_get(&flag), 0);
  EXPECT_EQ(flag, 0u);
  EXPECT_EQ(vorn_thread_coredump_flag_get(nullptr), -1);
  EXPECT_EQ(vorn_signal_exit_notify(SIGTERM, nullptr, nullptr), 0);
}

// Three threads are held in their dumps; a fourth is refused, a fatal signal is not.
TEST(Request, FourDumpsAtOnce) {
  static std::atomic<int> held{0};
  static std::atomic<bool> hold{true};
  const End end = run([] {
    static const vorn_lwt_stack_ops_s ops{[](unsigned long) -> int {
                                            ++held;
                                            while (hold)
                                              usleep(1000);
                                            return -1;
                                          },
                                          nullptr};
    register_lwt_stack_ops(&ops);
    std::atomic<int> tids[3] = {};
    for (auto &tid : tids)
      std::thread([&tid] {
        tid = gettid();
        for (;;)
          usleep(1000);
      }).detach();
    for (int i = 0; i < 3; ++i) {
      while (tids[i] == 0)
        usleep(1000);
      if (dump_thread_stack_sig(getpid(), tids[i]) != 0) _exit(1);
      while (held <= i)
        usleep(1000);
    }
    raise(SIGTASKTRACK);
    evlog_original("refused");
    hold = false;
    while (held < 4) { // until there is room again
      raise(SIGTASKTRACK);
      usleep(1000);
    }
    errno = 0;
    if (dump_thread_stack_sig(getpid(), 0x7ffffff0) != -1 || errno != ESRCH) _exit(2);
    evlog_original("tid %d of %d", gettid(), getpid());
  });
  EXPECT_EQ(end.status, 0);
  const std::string first = end.log.substr(0, end.log.find("refused"));
  EXPECT_NE(first.find("fault handler reentrant<4> too much. sig 61"), first.npos) << first;
  for (const char *text :
       {". <1>, sig SIGTASKTRACK", ". <2>, sig SIGTASKTRACK", ". <3>, sig SIGTASKTRACK"})
    EXPECT_NE(first.find(text), first.npos) << text;
  EXPECT_EQ(end.count("Show task context by signal ...: pid="), 4);
  EXPECT_EQ(end.count(", ret=0, errno=0."), 3);
  EXPECT_TRUE(end.has("tid=2147483632, ret=-1, errno=3."));
}

TEST(Request, BacktraceToAFile) {
  char name[32] = "";
  ASSERT_EQ(vorn_get_process_name(name, sizeof name), 0);
  const std::string path = "block-stack-" + std::string(name) + "-";
  const End end = run([&] {
    if (dump_signal_init() != 0) _exit(1);
    const auto ask = [] { return dump_thread_stack_sig_roc(getpid(), gettid()); };
    for (int i = 0; i < 4; ++i)
      if (ask() != 0) _exit(2);
    if (dump_thread_stack_sig_roc(getpid(), 0x7ffffff0) != -1 || errno != ESRCH) _exit(3);
    const std::string file = scratch::read_file(path + std::to_string(gettid()));
    const std::string now = std::to_string(time(nullptr)).substr(0, 8);
    if (file.find("---dump_time:" + now) != 0) _exit(4);
    if (std::strlen(g_tag_buf) != 63) _exit(5);
    if (file.find("\n---" + std::string(g_tag_buf) + "---\n") == file.npos) _exit(6);
    if (file.find("sig_calltrace_test(") == file.npos) _exit(7);
    std::strcpy(g_tag_buf, "x"); // so that the third would leave no room for the NUL
    if (ask() + ask() + ask() != 0 || std::strlen(g_tag_buf) != 43) _exit(8);
  });
  EXPECT_EQ(exit_code(end.status), 0) << end.log;
  EXPECT_EQ(end.count(" I 999 "), 16);
  EXPECT_EQ(end.count("ret=0, errno=0."), 7);
  EXPECT_EQ(end.count("ret=-1, errno=3."), 1);
}

// Threads that allocate, lock, wait and end are asked for their stacks all the time: nothing that
// waits comes back early, and nothing is lost.
TEST(Request, Storm) {
#ifdef VORN_TEST_EMULATED
  constexpr int kRounds = 20;
#else
  constexpr int kRounds = kSanitized ? 40 : 300;
#endif
  const End end = run([] {
    vorn_thread_signal_init();
    evlog_loglevel_set(381, EVLOG_ERROR);
    static vorn_sem_enhance_s given;
    static vorn_sem_enhance_s taken;
    static std::atomic<int> tid{0};
    static std::atomic<int> wrong{0};
    vorn_sem_enhance_init(&given, 0);
    vorn_sem_enhance_init(&taken, 0);
    std::atomic<bool> done{false};
    std::thread asking([&] {
      while (!done) {
        if (tid != 0) syscall(SYS_tgkill, getpid(), tid.load(), SIGTASKTRACK);
        usleep(1000); // a dump takes less
      }
    });
    for (int i = 0; i < kRounds; ++i) {
      pthread_t thread;
      const auto entry = [](void *) -> void * {
        tid = gettid();
        for (int j = 0; j < 20; ++j) {
          std::string text(static_cast<std::size_t>(100 + j * 40), 'x');
          vorn_thrd_setname("storm %zu", text.size());
        }
        vorn_sem_enhance_down(&given);
        vorn_sem_enhance_up(&taken);
        return nullptr;
      };
      if (create_thread_nopreempt_raw(entry, nullptr, &thread) != 0) ++wrong;
      usleep(100);
      vorn_sem_enhance_up(&given);
      vorn_sem_enhance_down(&taken);
    }
    done = true;
    asking.join();
    _exit(wrong);
  });
  EXPECT_EQ(end.status, 0);
}

} // namespace
