// The lines of a file, as vorn_readline cuts them, read in blocks: a call of the system for every
// line is what takes longest in a parse.
#ifndef VORN_CFG_LINES_HPP
#define VORN_CFG_LINES_HPP

#include <cstddef>

#include "mem/owned.hpp"

namespace vorn::cfg {

struct Line {
  char *text; // ends in a NUL; it may be changed, up to its length
  std::size_t length;
};

class Lines {
public:
  // From the position of fd. Lines of more than limit bytes are split.
  Lines(int fd, std::size_t limit) : fd_(fd), limit_(limit) {}

  // The next line, up to its first NUL and without its line feed, valid until the next call. False
  // at the end of the file, or after a failure.
  bool next(Line *line);

  int error() const { return error_; }             // the errno of a read, 0 for none
  std::size_t missing() const { return missing_; } // bytes that there was no memory for

private:
  bool grow();
  bool fill();
  std::size_t find_end();

  int fd_;
  std::size_t limit_;
  std::size_t missing_ = 0;
  mem::Block buffer_;
  std::size_t room_ = 0;  // in the buffer, beside a NUL
  std::size_t begin_ = 0; // of what has been read and not handed out
  std::size_t end_ = 0;   // of what has been read
  bool ended_ = false;
  int error_ = 0;
};

} // namespace vorn::cfg

#endif
