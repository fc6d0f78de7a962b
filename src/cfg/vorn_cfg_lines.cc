#include "cfg/vorn_cfg_lines.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "vorn_fileops.h"

namespace vorn::cfg {
namespace {

constexpr std::size_t kBlock = 65536;

ssize_t read_some(int fd, char *to, std::size_t count) {
  for (;;) {
    const ssize_t got = vorn_read(fd, to, count);
    if (got >= 0 || errno != EINTR) return got;
  }
}

std::size_t without_carriage_returns(char *text, std::size_t length) {
  if (std::memchr(text, '\r', length) == nullptr) return length;
  return static_cast<std::size_t>(std::remove(text, text + length, '\r') - text);
}

} // namespace

// Reads more behind what is there. False at the end of the file.
bool Lines::fill() {
  std::memmove(buffer_, buffer_ + begin_, end_ - begin_);
  end_ -= begin_;
  scanned_ -= begin_;
  begin_ = 0;
  const ssize_t got = read_some(fd_, buffer_ + end_, std::min(kBlock, room_ - end_));
  if (got < 0) error_ = errno;
  ended_ = got <= 0;
  if (!ended_) end_ += without_carriage_returns(buffer_ + end_, static_cast<std::size_t>(got));
  return !ended_;
}

// The line feed at the end of the first line, or the place behind a line that has none: the last of
// a file, or one that fills the buffer.
char *Lines::find_end() {
  for (;;) {
    void *feed = std::memchr(buffer_ + scanned_, '\n', end_ - scanned_);
    if (feed != nullptr) return static_cast<char *>(feed);
    scanned_ = end_;
    if (ended_ || end_ - begin_ == room_ || !fill()) return buffer_ + end_;
  }
}

bool Lines::next(Line *line) {
  char *end = find_end();
  if (error_ != 0 || begin_ == end_) return false;
  char *text = buffer_ + begin_;
  const bool has_feed = end != buffer_ + end_;
  begin_ = static_cast<std::size_t>(end - buffer_) + (has_feed ? 1 : 0);
  scanned_ = begin_;
  *end = '\0';
  *line = {text, std::strlen(text)};
  return true;
}

} // namespace vorn::cfg
