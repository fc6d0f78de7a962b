// Reads the lines of a file, cut as vorn_readline cuts them, in blocks: one system call per line
// would dominate the time of a parse.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_CFG_LINES_HPP
#define VORN_CFG_LINES_HPP

#include <cstddef>
#include <cstdint>

#include "mem/owned.hpp"

namespace vorn::cfg {

struct Line {
  char *text; // ends in a NUL; the caller may change it up to its length
  std::size_t length;
  std::uint64_t number; // in the file, from 1; the parts of a split line have the same
};

class Lines {
public:
  // Reads from the position of fd. Splits lines of more than limit bytes.
  Lines(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}

  // Returns the next line, up to its first NUL and without its line feed. It is valid until the
  // next call. Returns false at the end of the file, or after a failure.
  bool next(Line *line);

  int error() const { return error_; }             // the errno of a read, 0 for none
  std::size_t missing() const { return missing_; } // the bytes that there was no memory for

private:
  bool grow();
  bool fill();
  std::size_t find_end();

  int fd_;
  std::size_t limit_;
  std::size_t missing_ = 0;
  mem::Block buffer_;
  std::size_t room_ = 0;     // of the buffer, without a NUL
  std::size_t begin_ = 0;    // of the unread text
  std::size_t end_ = 0;      // of the text in the buffer
  std::uint64_t number_ = 1; // of the next line
  bool ended_ = false;
  int error_ = 0;
};

} // namespace vorn::cfg

#endif
