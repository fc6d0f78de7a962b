// Reads the first line that a command prints.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_fileops.c"
#include "fileops/first_line.hpp"

#include <cerrno>
#include <cstdio>

#include "base/errno_guard.hpp"
#include "vorn_cmd.h"
#include "vorn_fileops.h"

namespace vorn::fileops {

FirstLine first_line(const char *command, const char *whitelist, char *line, int size) {
  line[0] = '\0';
  FILE *stream = vorn_popen_s(command, "r", whitelist);
  if (stream == nullptr) return FirstLine::kNotRun;
  errno = 0;
  // fgets would take an interruption for the end
  const char *read = vorn_readline(fileno(stream), line, size);
  const ErrnoGuard errno_stays;
  vorn_pclose(stream);
  return read == nullptr ? FirstLine::kNone : FirstLine::kRead;
}

} // namespace vorn::fileops
