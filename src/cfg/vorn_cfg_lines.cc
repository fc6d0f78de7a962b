// Reads a file in blocks and cuts it into lines.
// SPDX-License-Identifier: Apache-2.0
#include "cfg/vorn_cfg_lines.hpp"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cfg/vorn_cfg_io.hpp"

namespace vorn::cfg {
namespace {

constexpr std::size_t kBlock = 65536; // the bytes of a read
constexpr std::size_t kGrowth = 8;

std::size_t without_carriage_returns(char *text, std::size_t length) {
  if (std::memchr(text, '\r', length) == nullptr) return length;
  return static_cast<std::size_t>(std::remove(text, text + length, '\r') - text);
}

} // namespace

// Most files fit in the first buffer. Called only while the unread text is at its beginning.
bool Lines::grow() {
  const std::size_t room = std::min(limit_, room_ == 0 ? kBlock : room_ * kGrowth);
  mem::Block buffer = mem::allocate_block(room + 1);
  if (buffer == nullptr) {
    missing_ = room + 1;
    return false;
  }
  if (end_ != 0) std::memcpy(buffer.get(), buffer_.get(), end_);
  buffer_ = std::move(buffer);
  room_ = room;
  return true;
}

// Appends the next bytes of the file. Returns false at the end of the file, if the line has reached
// its limit, and on failure.
bool Lines::fill() {
  if (begin_ != 0) std::memmove(buffer_.get(), buffer_.get() + begin_, end_ - begin_);
  end_ -= begin_;
  begin_ = 0;
  if (end_ == limit_ || (end_ == room_ && !grow())) return false;
  char *to = buffer_.get() + end_;
  const ssize_t got = read_file(fd_, to, std::min(kBlock, room_ - end_));
  if (got < 0) error_ = errno;
  ended_ = got <= 0;
  if (!ended_) end_ += without_carriage_returns(to, static_cast<std::size_t>(got));
  return !ended_;
}

// Returns the position of the first line feed. Returns the end of the line if it has none: the last
// line of a file, or a line at its limit.
std::size_t Lines::find_end() {
  std::size_t scanned = begin_; // there is no line feed before
  for (;;) {
    const char *from = buffer_.get() + scanned;
    const void *feed = scanned == end_ ? nullptr : std::memchr(from, '\n', end_ - scanned);
    if (feed != nullptr)
      return scanned + static_cast<std::size_t>(static_cast<const char *>(feed) - from);
    scanned = end_ - begin_;
    if (ended_ || !fill()) return end_;
  }
}

bool Lines::next(Line *line) {
  const std::size_t end = find_end();
  if (error_ != 0 || missing_ != 0 || begin_ == end_) return false;
  char *text = buffer_.get() + begin_;
  buffer_.get()[end] = '\0';
  *line = {text, std::strlen(text), number_};
  number_ += end < end_ ? 1 : 0;
  begin_ = std::min(end + 1, end_); // after the line feed, if there is one
  return true;
}

} // namespace vorn::cfg
