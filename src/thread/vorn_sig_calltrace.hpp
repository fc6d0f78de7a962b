// What the installation of the signals and their handler share.
#ifndef VORN_SIG_CALLTRACE_HPP
#define VORN_SIG_CALLTRACE_HPP

#include <atomic>
#include <csignal>

namespace vorn::thread {

inline constexpr unsigned int kSignals = 128;

// What each signal with a handler is called; NULL: it has none. Written while they are installed.
extern std::atomic<const char *> signal_names[kSignals];

// The handler of them all.
void fault_handler(int signal, siginfo_t *info, void *context);

} // namespace vorn::thread

#endif
