// Writes the program's messages to standard error, and keeps the library's away from there.
// SPDX-License-Identifier: Apache-2.0
#include "console.hpp"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <unistd.h>

#include "fd.hpp"

// Defined by the sanitizers alone; otherwise its address is null.
extern "C" void __sanitizer_set_report_fd(void *fd) __attribute__((weak));

namespace scrub {
namespace {

void send_sanitizer_reports_to(int fd) {
  if (__sanitizer_set_report_fd != nullptr)
    __sanitizer_set_report_fd(reinterpret_cast<void *>(static_cast<std::intptr_t>(fd)));
}

} // namespace

Console::Console() : copy_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)) {}

void Console::hide_library_messages() {
  if (copy_ < 0) return;
  const Fd nothing(open("/dev/null", O_WRONLY | O_CLOEXEC));
  if (nothing.get() < 0) return;
  send_sanitizer_reports_to(copy_);
  hidden_ = dup2(nothing.get(), STDERR_FILENO) >= 0;
}

// One write, so that the line stays whole among those of other threads and processes.
void Console::say(const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  std::va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(nullptr, 0, format, args);
  va_end(args);
  std::string line("vorn-scrub: ");
  if (length > 0) {
    const std::size_t start = line.size();
    line.resize(start + static_cast<std::size_t>(length) + 1);
    std::vsnprintf(line.data() + start, static_cast<std::size_t>(length) + 1, format, again);
    line.pop_back();
  }
  va_end(again);
  line += '\n';
  write_all(copy_ < 0 ? STDERR_FILENO : copy_, line);
}

} // namespace scrub
