// Declares the reader of the first line that a command prints.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_FILEOPS_FIRST_LINE_HPP
#define VORN_FILEOPS_FIRST_LINE_HPP

namespace vorn::fileops {

enum class FirstLine {
  kNotRun, // the command cannot be run, or whitelist does not permit it
  kNone,   // it printed nothing; errno tells why where a read failed, and is 0 otherwise
  kRead,
};

// Cut to the size bytes at line, with its line feed where that fits; empty unless it is kRead.
FirstLine first_line(const char *command, const char *whitelist, char *line, int size);

} // namespace vorn::fileops

#endif
