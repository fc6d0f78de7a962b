// A regular file of the tree, read from its beginning to its end.
#ifndef SCRUB_DATA_FILE_HPP
#define SCRUB_DATA_FILE_HPP

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <span>
#include <sys/stat.h>

#include "fd.hpp"

namespace scrub {

class DataFile {
public:
  // False, with the problem, when there is no regular file that can be read. Never waits, whatever
  // stands there.
  bool open(int directory, const char *name);

  // What the file was when it was opened.
  std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }
  const timespec &written() const { return status_.st_mtim; }

  // Reads what comes next of what was there when the file was opened. Returns the number of bytes:
  // fewer than there is room for at the end alone, and after a problem.
  std::size_t read(std::span<std::byte> room);

  // Reads the bytes at the offset, from the device where the system has no changes of them to write
  // back. False when not all of them can be read.
  bool read_again(std::uint64_t offset, std::span<std::byte> bytes) const;

  // Why the file could not be read to its end as one thing, NULL where it was: an error, or a
  // change of the file while it was read. Asked at the end.
  const char *problem() const;
  bool changed() const { return error_ == 0 && has_changed(); }
  bool vanished() const { return error_ == ENOENT; }

private:
  bool has_changed() const;

  Fd fd_;
  int error_ = 0;
  struct stat status_ {};
  std::uint64_t read_ = 0; // bytes
  bool short_ = false;     // it ended before its size
};

} // namespace scrub

#endif
