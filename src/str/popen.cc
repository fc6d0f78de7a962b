#define VORN_FILE "vorn_str.c"
#include "vorn_cmd.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "base/cancellation_off.hpp"
#include "base/log.hpp"
#include "str/pid_table.hpp"
#include "str/spawn.hpp"

namespace vorn::str {
namespace {

// "r" or "w", and nothing behind it.
bool is_mode(const char *mode) {
  return mode != nullptr && (mode[0] == 'r' || mode[0] == 'w') && mode[1] == '\0';
}

// A pipe to or from a shell. Both ends are close-on-exec: no child of another stream, of another
// thread either, holds one of them open.
struct Pipe {
  int ends[2]; // to read from, to write to
  bool reads;  // we read what the shell writes

  int ours() const { return ends[reads ? 0 : 1]; }
  int theirs() const { return ends[reads ? 1 : 0]; }
  Redirection redirection() const { return {theirs(), reads ? STDOUT_FILENO : STDIN_FILENO}; }

  bool open(const char *mode) {
    reads = mode[0] == 'r';
    return pipe2(ends, O_CLOEXEC) == 0;
  }
  void close_both() const {
    close(ends[0]);
    close(ends[1]);
  }
};

// Starts the command at the other end of the pipe and makes a stream of our end. Where no shell can
// be started it closes both. function is the exported one that the record names.
FILE *start(const char *function, const char *command, const char *mode, const Pipe &pipe,
            pid_t *child) {
  const Redirection redirection = pipe.redirection();
  const pid_t started = spawn_shell(command, &redirection);
  if (started < 0) {
    pipe.close_both();
    return nullptr;
  }
  close(pipe.theirs());
  FILE *stream = fdopen(pipe.ours(), mode);
  if (stream == nullptr) {
    // On purpose our end stays open and the child unreaped: the command is let finish, and is
    // neither cut off by a broken pipe nor waited for.
    const int error = errno;
    VORN_LOG_AS(function, kInfo, "Iop is NULL, modes:(%s), pdes[0]=(%d), pdes[1]=(%d), errno:(%d).",
                mode, pipe.ends[0], pipe.ends[1], error);
    errno = error;
    return nullptr;
  }
  *child = started;
  return stream;
}

} // namespace
} // namespace vorn::str

FILE *vorn_popen(const char *command, const char *mode) {
  if (command == nullptr || !vorn::str::is_mode(mode)) return nullptr;
  const vorn::CancellationOff off;
  if (!vorn::str::pid_table_ready()) return nullptr;
  vorn::str::Pipe pipe{};
  if (!pipe.open(mode)) return nullptr;
  if (!vorn::str::pid_table_covers(pipe.ours())) {
    pipe.close_both();
    errno = EMFILE;
    return nullptr;
  }
  pid_t child = 0;
  FILE *stream = vorn::str::start(__func__, command, mode, pipe, &child);
  if (stream != nullptr) vorn::str::pid_table_put(pipe.ours(), child);
  return stream;
}

FILE *vorn_popen_s(const char *command, const char *mode, const char *whitelist) {
  if (command == nullptr || isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen(command, mode);
}

FILE *vorn_popen_with_pid(const char *command, const char *mode, int *pid) {
  if (command == nullptr || mode == nullptr || pid == nullptr) return nullptr;
  const vorn::CancellationOff off;
  vorn::str::Pipe pipe{};
  if (!pipe.open(mode)) return nullptr;
  return vorn::str::start(__func__, command, mode, pipe, pid);
}

FILE *vorn_popen_s_with_pid(const char *command, const char *mode, const char *whitelist,
                            int *pid) {
  if (pid == nullptr || command == nullptr || !vorn::str::is_mode(mode)) return nullptr;
  if (isDangerousCmd(command, whitelist) != 0) return nullptr;
  return vorn_popen_with_pid(command, mode, pid);
}

int vorn_pclose(FILE *stream) {
  if (stream == nullptr) return -1;
  const int fd = fileno(stream);
  if (fd == -1) return -1;
  const vorn::CancellationOff off;
  const pid_t child = vorn::str::pid_table_take(fd);
  if (child == 0) return -1;
  fclose(stream);

  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGHUP);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGQUIT);
  sigprocmask(SIG_BLOCK, &blocked, &before);
  const int status = vorn::str::wait_for(child);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return status;
}

FILE *popen_s(const char *command, const char *mode, const char *whitelist) {
  if (command == nullptr || !vorn::str::is_mode(mode)) return nullptr;
  if (isDangerousCmd(command, whitelist) != 0) return nullptr;
  // Close-on-exec, as our own streams are.
  return popen(command, mode[0] == 'r' ? "re" : "we");
}
