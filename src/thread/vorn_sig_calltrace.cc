// Installs the handler of the fault signals.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sig_calltrace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "thread/vorn_sig_calltrace.hpp"
#include "vorn_symbol.h"
#include "vorn_thrd.h"

namespace vorn::thread {

constinit std::atomic<const char *> signal_names[kSignals]{};

namespace {

struct NamedSignal {
  int number;
  const char *name;
};

constexpr NamedSignal kFaultSignals[] = {
    {SIGILL, "SIGILL"},   {SIGABRT, "SIGABRT"}, {SIGBUS, "SIGBUS"},       {SIGFPE, "SIGFPE"},
    {SIGUSR1, "SIGUSR1"}, {SIGSEGV, "SIGSEGV"}, {SIGUSR2, "SIGUSR2"},     {SIGPIPE, "SIGPIPE"},
    {SIGALRM, "SIGALRM"}, {SIGTERM, "SIGTERM"}, {SIGSTKFLT, "SIGSTKFLT"}, {SIGTTIN, "SIGTTIN"},
    {SIGTTOU, "SIGTTOU"}, {SIGXCPU, "SIGXCPU"}, {SIGXFSZ, "SIGXFSZ"},     {SIGVTALRM, "SIGVTALRM"},
    {SIGPROF, "SIGPROF"}, {SIGIO, "SIGIO"},     {SIGPWR, "SIGPWR"},       {SIGSYS, "SIGSYS"},
};

constinit Once installed{OncePolicy::kLatch};
constinit Once tracking{OncePolicy::kRetry};

constinit std::atomic<unsigned int> core_wanted{0};

// The signal stack of the thread that installs the handlers: the main thread has none by itself.
alignas(16) constinit unsigned char first_stack[VORN_THRD_SIGSTACK_SIZE]{};

void give_signal_stack() {
  stack_t stack{};
  if (sigaltstack(nullptr, &stack) != 0 || (stack.ss_flags & SS_DISABLE) == 0) return;
  stack = {};
  stack.ss_sp = first_stack;
  stack.ss_size = sizeof first_stack;
  sigaltstack(&stack, nullptr);
}

bool install(int number, const char *name) {
  struct sigaction action {};
  action.sa_sigaction = fault_handler;
  action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_RESTART;
  sigemptyset(&action.sa_mask);
  if (sigaction(number, &action, nullptr) != 0) return false;
  signal_names[number].store(name, std::memory_order_relaxed);
  return true;
}

// Formats the numbers of a list; omits those that do not fit.
class Numbers {
public:
  void append(unsigned int number) {
    char text[16];
    const int length = snprintf_s(text, sizeof text, sizeof text - 1, "%u, ", number);
    const auto size = static_cast<std::size_t>(length);
    if (full_ || length_ + size >= sizeof text_) {
      full_ = true;
      return;
    }
    std::memcpy(text_ + length_, text, size + 1);
    length_ += size;
  }

  const char *text() const { return text_; }

private:
  char text_[128] = "";
  std::size_t length_ = 0;
  bool full_ = false;
};

void install_list(const unsigned int *list, unsigned int count) {
  Numbers numbers;
  for (unsigned int i = 0; i < count; ++i) {
    numbers.append(list[i]);
    errno = EINVAL;
    if (list[i] >= kSignals || !install(static_cast<int>(list[i]), "sigList[i]"))
      VORN_LOG_AS("vorn_thread_signal_init_with_list", kError,
                  "Signal %u of the list is refused, errno=%d.", list[i], errno);
  }
  VORN_LOG_AS("vorn_thread_signal_init_with_list", kInfo, "signal init with list(%s).",
              numbers.text());
}

// The steps before and after the signals of either kind.
template <class Install> int install_all(Install install_signals) {
  const ErrnoGuard errno_stays;
  vorn_symbol_init();
  std::atexit(vorn_thread_exit_callback);
  for (auto &name : signal_names)
    name.store(nullptr, std::memory_order_relaxed);
  signal(SIGHUP, SIG_IGN);
  give_signal_stack();
  install_signals();
  // The handler may have been installed before the names were cleared.
  if (auto_install_dump_stack_signal() == 0)
    signal_names[SIGTASKTRACK].store("SIGTASKTRACK", std::memory_order_relaxed);
  return 0;
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

int vorn_thread_signal_init() {
  installed.run([] {
    return install_all([] {
      for (const NamedSignal &signal : kFaultSignals)
        install(signal.number, signal.name);
    });
  });
  return 0;
}

int vorn_thread_signal_init_with_list(void *, const unsigned int *list, unsigned int count) {
  if (list == nullptr && count != 0) return VORN_FAIL(-1, "sigList is null, sigNum is %u.", count);
  installed.run([=] { return install_all([=] { install_list(list, count); }); });
  return 0;
}

int vorn_thread_signal_flag_get() { return installed.done() ? 1 : 0; }

int is_dump_stack_enabled() { return installed.done() ? 0 : -1; }

int auto_install_dump_stack_signal() {
  return tracking.run([] { return install(SIGTASKTRACK, "SIGTASKTRACK") ? 0 : -1; });
}

int vorn_thread_set_coredump_on() {
  core_wanted.store(1, std::memory_order_relaxed);
  return 0;
}

int vorn_thread_set_coredump_off() {
  core_wanted.store(0, std::memory_order_relaxed);
  return 0;
}

int vorn_thread_coredump_flag_get(unsigned int *out) {
  const unsigned int flag = core_wanted.load(std::memory_order_relaxed);
  if (out == nullptr || flag > 1) return -1;
  *out = flag;
  return 0;
}
