// Writes to the console and counts the texts that it drops.
//
// Descriptor 2 is the console only if it is still the file that it was when the library was loaded.
// A process that has closed its standard descriptors may open a file there, and log messages must
// not go into that file. So each write compares the two files first. A duplicate made at load would
// need no comparison, but the reader of a pipe would get no end of file when the process closes its
// standard error.
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

// Stays zero, which matches no file, if descriptor 2 is closed.
constinit struct stat file_at_load = {};

// Relaxed: the counters order no other access.
constinit std::atomic<unsigned long> dropped{0};
constinit std::atomic<unsigned long> reported{0}; // the value of dropped at the last report

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
