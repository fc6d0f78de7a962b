// Prints to the console, which is standard error, and answers the requests that turn its printing
// and its login query on and off.
// SPDX-License-Identifier: Apache-2.0
#include "console.hpp"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <sys/syscall.h>
#include <unistd.h>

#include "answers.hpp"

namespace vornsim {
namespace {

constinit std::atomic<bool> printing{true};

} // namespace

// Makes a single write: a fault handler may request a panic, and the lines of threads must not mix.
void print(const char *format, ...) {
  if (!printing.load(std::memory_order_relaxed)) return;
  char text[512];
  std::va_list args;
  va_start(args, format);
  const int length = std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  if (length < 0) return;
  const std::size_t size = static_cast<std::size_t>(length) < sizeof text
                               ? static_cast<std::size_t>(length)
                               : sizeof text - 1;
  const int error = errno;
  syscall(SYS_write, STDERR_FILENO, text, size);
  errno = error;
}

void set_printing(bool on) { printing.store(on, std::memory_order_relaxed); }

long start_login_query(const Arguments &) {
  print("vornsim: the login query on the console is started\n");
  return 0;
}

long stop_login_query(const Arguments &) {
  print("vornsim: the login query on the console is stopped\n");
  return 0;
}

long printing_on(const Arguments &) {
  set_printing(true);
  print("vornsim: printing on the console is on\n");
  return 0;
}

long printing_off(const Arguments &) {
  print("vornsim: printing on the console is off\n");
  set_printing(false);
  return 0;
}

} // namespace vornsim
