// Formats raw texts on the stack and writes them.
// SPDX-License-Identifier: Apache-2.0
#include "raw.hpp"

#include <algorithm>
#include <cstdio>

#include "base/cancellation_guard.hpp"
#include "base/errno_guard.hpp"
#include "console.hpp"
#include "output.hpp"

namespace logging {

namespace {

constexpr std::size_t kRawBytes = 1023;

} // namespace

// The C library's formatter works on the stack for strings, characters, integers and pointers, and
// for floating point of ordinary width. It allocates memory for a width or precision beyond about a
// thousand, for wide characters and for long lists of numbered arguments, and takes the locale's
// locks for %m. evlog.h excludes these. If a caller uses one nevertheless, the risk is an
// interrupted malloc or setlocale, and only in a signal handler.
int write_raw(LineEnd end, const char *format, std::va_list args) {
  const vorn::ErrnoGuard errno_stays;
  const vorn::CancellationGuard off;
  if (format == nullptr) return -1;
  char buffer[kRawBytes + 1]; // the NUL's place takes the newline
  const int wanted = vsnprintf(buffer, sizeof buffer, format, args);
  if (wanted < 0) return -1;
  std::size_t length = std::min(static_cast<std::size_t>(wanted), kRawBytes);
  if (end == LineEnd::kAdded && (length == 0 || buffer[length - 1] != '\n'))
    buffer[length++] = '\n';

  const std::string_view text{buffer, length};
  ssize_t written = write_log_file(text);
  if (written < 0) written = write_console(text);
  return static_cast<int>(written);
}

} // namespace logging
