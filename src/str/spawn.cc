// Starts shells with vfork(2).
// SPDX-License-Identifier: Apache-2.0
#include "str/spawn.hpp"

#include <unistd.h>

#include "base/system.hpp"

namespace vorn::str {

// The child shares this frame and the caller's memory until execve(2). It writes nothing that the
// parent reads later. The function is not inlined, so that the compiler keeps no value of the
// caller where the child could change it. Every descriptor of the library is close-on-exec, so the
// child closes none; the result of dup2(2) stays open.
[[gnu::noinline]] pid_t spawn_shell(const char *command, const Redirection *redirection) {
  const pid_t child = vfork();
  if (child != 0) return child;
  if (redirection == nullptr || dup2(redirection->from, redirection->to) >= 0)
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
  _exit(127);
}

int wait_for(pid_t child) {
  int status = 0;
  return sys::wait_for_child(child, &status) < 0 ? -1 : status;
}

} // namespace vorn::str
