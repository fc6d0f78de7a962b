#include "str/spawn.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vorn::str {
namespace {

// Every other descriptor of ours is close-on-exec, so none is closed here. What dup2 makes is not
// close-on-exec; an end of a pipe that has the right number already must be made so.
bool redirect(const Redirection &redirection) {
  if (redirection.from == redirection.to) return fcntl(redirection.to, F_SETFD, 0) == 0;
  return dup2(redirection.from, redirection.to) >= 0;
}

} // namespace

// The child borrows this frame and the caller's memory until it is executed. Nothing that the
// parent reads afterwards is written in it, and the function is not inlined, so that the compiler
// keeps no value of the caller's where the child could change it.
[[gnu::noinline]] pid_t spawn_shell(const char *command, const Redirection *redirection) {
  const pid_t child = vfork();
  if (child != 0) return child;
  if (redirection == nullptr || redirect(*redirection))
    execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
  _exit(127);
}

int wait_for(pid_t child) {
  int status = 0;
  pid_t ended = 0;
  do {
    ended = waitpid(child, &status, 0);
  } while (ended < 0 && errno == EINTR);
  return ended < 0 ? -1 : status;
}

} // namespace vorn::str
