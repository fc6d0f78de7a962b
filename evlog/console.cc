// Descriptor 2 is the console only if it was open when the library was loaded: any later one may be
// a file that the process opened for itself after it had closed the standard descriptors, and a log
// message would become part of that file's content. Each write therefore compares the two files
// first. A duplicate made at load would need no comparison, but would keep the reader of a pipe
// waiting for an end of file after the process had closed its standard error.
// SPDX-License-Identifier: Apache-2.0
#include "console.hpp"

#include <atomic>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include "base/system.hpp"
#include "pipe.hpp"
#include "same_file.hpp"

namespace logging {

namespace {

// Left zero, which is no file's, where descriptor 2 is closed.
constinit struct stat file_at_load = {};

// Counters only: they order nothing else.
constinit std::atomic<unsigned long> dropped{0};
constinit std::atomic<unsigned long> reported{0}; // dropped, as of the last report

[[gnu::constructor]] void remember_console() { fstat(STDERR_FILENO, &file_at_load); }

ssize_t write_socket(int fd, std::string_view text) {
  iovec bytes{const_cast<char *>(text.data()), text.size()};
  msghdr message = {};
  message.msg_iov = &bytes;
  message.msg_iovlen = 1;
  return vorn::sys::send(fd, message, 0); // raises no SIGPIPE
}

ssize_t write_if_console(std::string_view text) {
  struct stat file;
  if (fstat(STDERR_FILENO, &file) != 0 || !same_file(file, file_at_load)) return -1;
  if (S_ISSOCK(file.st_mode)) return write_socket(STDERR_FILENO, text);
  if (S_ISFIFO(file.st_mode)) return write_pipe(STDERR_FILENO, text);
  return vorn::sys::write(STDERR_FILENO, text.data(), text.size());
}

} // namespace

ssize_t write_console(std::string_view text) {
  const ssize_t written = write_if_console(text);
  if (written < 0) dropped.fetch_add(1, std::memory_order_relaxed);
  return written;
}

unsigned long take_console_report(Report report) {
  const unsigned long now = dropped.load(std::memory_order_relaxed);
  unsigned long last = reported.load(std::memory_order_relaxed);
  const unsigned long due = last == 0 || report == Report::kFinal ? last + 1 : last * 10;
  if (now < due) return 0;
  return reported.compare_exchange_strong(last, now, std::memory_order_relaxed) ? now : 0;
}

} // namespace logging
