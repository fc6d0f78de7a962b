// A regular file of the tree, read from its beginning to its end in blocks.
#ifndef SCRUB_DATA_FILE_HPP
#define SCRUB_DATA_FILE_HPP

#include <cstdint>
#include <sys/stat.h>

#include "checksums.hpp"
#include "fd.hpp"
#include "memory.hpp"

namespace scrub {

using ReadBuffer = Vector<std::byte>;
inline constexpr std::size_t kReadBufferSize = 256 * kBlockSize;

class DataFile {
public:
  // buffer is this file's until it goes: a multiple of kBlockSize.
  explicit DataFile(ReadBuffer &buffer) : buffer_(buffer) {}

  // False, with the problem, when there is no regular file that can be read. Never waits, whatever
  // stands there.
  bool open(int directory, const char *name);

  // What the file was when it was opened.
  std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }
  const timespec &written() const { return status_.st_mtim; }

  // The next block of what was there when the file was opened; empty at the end and after a
  // problem.
  Bytes next_block();

  // Why the file could not be read to its end as one thing, NULL where it was: an error, or a
  // change of the file while it was read. Asked after the last block.
  const char *problem() const;
  bool changed() const { return error_ == 0 && has_changed(); }
  bool vanished() const { return error_ == ENOENT; }

private:
  bool refill();
  bool has_changed() const;

  ReadBuffer &buffer_;
  Fd fd_;
  int error_ = 0;
  struct stat status_ {};
  std::uint64_t read_ = 0; // bytes of the file that are or were in the buffer
  bool short_ = false;     // it ended before its size
  Bytes held_;             // read, not given out yet
};

} // namespace scrub

#endif
