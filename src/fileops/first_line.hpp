// Declares the reader of the first line that a command prints.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_FILEOPS_FIRST_LINE_HPP
#define VORN_FILEOPS_FIRST_LINE_HPP

namespace vorn::fileops {

enum class FirstLine {
  kNotRun, // the command cannot be run, or whitelist does not permit it
  kNone,   // it printed nothing; errno is that of a failed read, or else 0
  kRead,
};

// Stores the line with its line feed, cut to size bytes with a NUL. Empties it unless the result is
// kRead.
FirstLine first_line(const char *command, const char *whitelist, char *line, int size);

} // namespace vorn::fileops

#endif
