// Writes to a pipe without raising SIGPIPE.
//
// A write to a pipe without a reader raises SIGPIPE in the thread that writes, even if the reader
// got a part of the text. The thread blocks the signal, writes, and consumes the signal. If a
// SIGPIPE was pending before, it belongs to the process: a second one does not queue, so the thread
// consumes none.
// SPDX-License-Identifier: Apache-2.0
#include "pipe.hpp"

#include <csignal>
#include <ctime>

#include "base/system.hpp"

namespace logging {

ssize_t write_pipe(int fd, std::string_view text) {
  sigset_t sigpipe;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&sigpipe);
  sigaddset(&sigpipe, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &sigpipe, &before);
  sigpending(&pending);

  const ssize_t written = vorn::sys::write(fd, text.data(), text.size());
  constexpr timespec kAtOnce{};
  if (written < static_cast<ssize_t>(text.size()) && sigismember(&pending, SIGPIPE) == 0)
    sigtimedwait(&sigpipe, nullptr, &kAtOnce);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  return written;
}

} // namespace logging
