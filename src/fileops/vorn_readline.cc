// Reads a line from a descriptor.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_fileops.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#include "base/system.hpp"

namespace vorn::fileops {
namespace {

// The function reads a line in pieces. The first piece is small, since most lines are short; the
// pieces double up to a size that suits the stack.
constexpr std::size_t kFirstPiece = 512;
constexpr std::size_t kLargestPiece = 4096;

// The largest page of any system.
constexpr off_t kLargestPage = 65536;

struct Line {
  char *end;        // where the next byte goes
  std::size_t room; // the bytes that still fit
  bool complete;    // its line feed was found

  bool done() const { return complete || room == 0; }
};

// Appends those of the length bytes at piece that belong to the line. Returns how many it used.
std::size_t append(Line &line, const char *piece, std::size_t length) {
  const void *feed = std::memchr(piece, '\n', length);
  const char *stop = feed == nullptr ? piece + length : static_cast<const char *>(feed) + 1;
  const char *at = piece;
  while (at != stop && line.room != 0) {
    if (*at == '\r') {
      ++at;
      continue;
    }
    std::size_t run = std::min(static_cast<std::size_t>(stop - at), line.room);
    const void *carriage = std::memchr(at, '\r', run);
    if (carriage != nullptr)
      run = static_cast<std::size_t>(static_cast<const char *>(carriage) - at);
    std::memcpy(line.end, at, run);
    line.end += run;
    line.room -= run;
    at += run;
  }
  line.complete = feed != nullptr;
  return static_cast<std::size_t>(at - piece);
}

// The kernel generates the text of a file in /proc or /sys anew after each seek, so that the rest
// of a line may belong to another line. Such a file has no blocks, and its size is at most a page.
// A FIFO or a device may accept a seek and yet return each byte only once.
bool is_stored(const struct stat &file) {
  return S_ISREG(file.st_mode) && (file.st_blocks > 0 || file.st_size > kLargestPage);
}

// Returns the file position if the file may be read beyond the line, or else -1.
off_t position_of_stored(int fd) {
  struct stat file;
  if (fstat(fd, &file) != 0 || !is_stored(file)) return -1;
  const int before = errno;
  const off_t position = lseek(fd, 0, SEEK_CUR);
  if (position < 0) errno = before; // the read will report the error
  return position;
}

void read_pieces(int fd, off_t start, Line &line) {
  char piece[kLargestPiece];
  std::size_t size = kFirstPiece;
  off_t position = start;
  while (!line.done()) {
    const ssize_t length = sys::pread(fd, piece, size, position);
    if (length <= 0) break;
    position += static_cast<off_t>(append(line, piece, static_cast<std::size_t>(length)));
    size = std::min(size * 2, kLargestPiece);
  }
  if (position != start) lseek(fd, position, SEEK_SET);
}

void read_bytes(int fd, Line &line) {
  while (!line.done()) {
    char byte = 0;
    if (sys::read(fd, &byte, 1) <= 0) return;
    append(line, &byte, 1);
  }
}

} // namespace
} // namespace vorn::fileops

using namespace vorn::fileops;

char *vorn_readline(int fd, char *buf, int size) {
  if (buf == nullptr || size < 1) return nullptr;
  Line line{buf, static_cast<std::size_t>(size) - 1, false};
  const off_t start = position_of_stored(fd);
  if (start >= 0) {
    read_pieces(fd, start, line);
  } else {
    read_bytes(fd, line);
  }
  *line.end = '\0';
  buf[size - 1] = '\0';
  return line.end == buf ? nullptr : buf;
}
