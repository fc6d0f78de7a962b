// Tells whether a signal handler is running that a thread's signal stack was made for.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_SIGNAL_STACK_HPP
#define VORN_EVLOG_SIGNAL_STACK_HPP

#include <csignal>

namespace logging {

// The thread that logs is on its signal stack, as the handlers of fatal signals are. What the
// signal interrupted may hold any lock of this library, or the C library's on the time zone: on
// that stack neither is taken.
inline bool on_signal_stack() {
  stack_t stack{};
  return sigaltstack(nullptr, &stack) == 0 && (stack.ss_flags & SS_ONSTACK) != 0;
}

} // namespace logging

#endif
