// The lines of a file, as vorn_readline cuts them, read in blocks: a call of the system for every
// line is what takes longest in a parse.
#ifndef VORN_CFG_LINES_HPP
#define VORN_CFG_LINES_HPP

#include <cstddef>

namespace vorn::cfg {

struct Line {
  char *text; // ends in a NUL; it may be changed, up to its length
  std::size_t length;
};

class Lines {
public:
  // buffer has room for size bytes: a line of size - 1 and a NUL. Longer ones are split.
  Lines(int fd, char *buffer, std::size_t size) : fd_(fd), buffer_(buffer), room_(size - 1) {}

  // The next line, up to its first NUL and without its line feed, valid until the next call. False
  // at the end of the file, or when it cannot be read: then error() is the errno.
  bool next(Line *line);

  int error() const { return error_; }

private:
  bool fill();
  char *find_end();

  int fd_;
  char *buffer_;
  std::size_t room_;
  std::size_t begin_ = 0;   // of what has been read and not handed out
  std::size_t end_ = 0;     // behind it
  std::size_t scanned_ = 0; // behind what is known to hold no line feed
  bool ended_ = false;
  int error_ = 0;
};

} // namespace vorn::cfg

#endif
