// Opens streams to and from a shell.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_str.c"
#include "vorn_cmd.h"

#include <cerrno>
#include <csignal>
#include <unistd.h>

#include "base/cancellation_guard.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "str/pid_table.hpp"
#include "str/spawn.hpp"

namespace vorn::str {
namespace {

// Returns whether mode is exactly "r" or "w".
bool is_mode(const char *mode) {
  return mode != nullptr && (mode[0] == 'r' || mode[0] == 'w') && mode[1] == '\0';
}

// A pipe to or from a shell. Both ends are close-on-exec, so that no child of another stream holds
// one of them open. Both are above the standard descriptors, one of which the shell gets.
struct Pipe {
  UniqueFd reading;
  UniqueFd writing;
  bool reads = false; // the library reads what the shell writes

  UniqueFd &ours() { return reads ? reading : writing; }
  UniqueFd &theirs() { return reads ? writing : reading; }

  bool open(const char *mode) {
    reads = mode[0] == 'r';
    return sys::pipe(reading, writing);
  }
};

// Starts the command at the other end of the pipe and opens a stream on this end. Log messages name
// function.
FILE *start(const char *function, const char *command, const char *mode, Pipe &pipe, pid_t *child) {
  const int ends[2] = {pipe.reading.get(), pipe.writing.get()};
  const Redirection redirection{pipe.theirs().get(), pipe.reads ? STDOUT_FILENO : STDIN_FILENO};
  const pid_t started = spawn_shell(command, &redirection);
  if (started < 0) return nullptr;
  // Without a stream, this end still stays open, so that no broken pipe ends the command; and no
  // thread reaps the child, so that the caller does not wait for it.
  FILE *stream = fdopen(pipe.ours().release(), mode);
  if (stream == nullptr) {
    VORN_LOG_AS(function, kInfo, "Iop is NULL, modes:(%s), pdes[0]=(%d), pdes[1]=(%d), errno:(%d).",
                mode, ends[0], ends[1], errno);
    return nullptr;
  }
  *child = started;
  return stream;
}

} // namespace
} // namespace vorn::str

using namespace vorn::str;

FILE *vorn_popen(const char *command, const char *mode) {
  if (command == nullptr || !is_mode(mode)) return nullptr;
  const vorn::CancellationGuard off;
  if (!pid_table_ready()) return nullptr;
  Pipe pipe;
  if (!pipe.open(mode)) return nullptr;
  if (!pid_table_covers(pipe.ours().get())) {
    errno = EMFILE;
    return nullptr;
  }
  pid_t child = 0;
  FILE *stream = start(__func__, command, mode, pipe, &child);
  if (stream != nullptr) pid_table_put(fileno(stream), child);
  return stream;
}

FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist) {
  if (command == nullptr || isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen(command, mode);
}

FILE *vorn_popen_with_pid(const char *command, const char *mode, int *pid) {
  if (command == nullptr || mode == nullptr || pid == nullptr) return nullptr;
  const vorn::CancellationGuard off;
  Pipe pipe;
  if (!pipe.open(mode)) return nullptr;
  return start(__func__, command, mode, pipe, pid);
}

FILE *vorn_popen_s_with_pid(const char *command, const char *mode, const char *whitelist,
                            int *pid) {
  if (pid == nullptr || command == nullptr || !is_mode(mode)) return nullptr;
  if (isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen_with_pid(command, mode, pid);
}

int vorn_pclose(FILE *stream) {
  if (stream == nullptr) return -1;
  const int fd = fileno(stream);
  if (fd == -1) return -1;
  const vorn::CancellationGuard off;
  const pid_t child = pid_table_take(fd);
  if (child == 0) return -1;
  fclose(stream);

  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGHUP);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGQUIT);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const int status = wait_for(child);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return status;
}

FILE *popen_s(const char *command, const char *mode, const char *whitelist) {
  if (command == nullptr || !is_mode(mode)) return nullptr;
  if (isDangerousCmd(command, whitelist) != 0) return nullptr;
  // Close-on-exec, like the library's streams.
  return popen(command, mode[0] == 'r' ? "re" : "we");
}
