// Starts shells that run a command, without a copy of the caller's memory.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_STR_SPAWN_HPP
#define VORN_STR_SPAWN_HPP

#include <sys/types.h>

namespace vorn::str {

// A descriptor that the shell gets under another number.
struct Redirection {
  int from;
  int to;
};

// Starts /bin/sh -c command, with a redirection unless that is NULL. Returns the process id, or -1
// with errno. The caller holds a CancellationGuard.
pid_t spawn_shell(const char *command, const Redirection *redirection);

// Waits for a child to end. Returns its wait status, or -1 with errno.
int wait_for(pid_t child);

} // namespace vorn::str

#endif
