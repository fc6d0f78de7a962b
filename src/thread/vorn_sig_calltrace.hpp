// Declares what the installation of the fault signals and their handler share: the names of the
// signals, and the handler.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SIG_CALLTRACE_HPP
#define VORN_SIG_CALLTRACE_HPP

#include <atomic>
#include <csignal>

namespace vorn::thread {

inline constexpr unsigned int kSignals = 128;

// The name of each signal with a handler; NULL if it has none. Written during the installation.
extern std::atomic<const char *> signal_names[kSignals];

// The handler of all these signals.
void fault_handler(int signal, siginfo_t *info, void *context);

} // namespace vorn::thread

#endif
