// Declares a regular file of the tree, which is read from its beginning to its end.
// SPDX-License-Identifier: Apache-2.0
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
  // Returns false, with the problem, if the name is no regular file that can be read. Does not
  // block on a FIFO or a device.
  bool open(int directory, const char *name);

  // The attributes of the file at its opening.
  std::uint64_t size() const { return static_cast<std::uint64_t>(status_.st_size); }
  const timespec &written() const { return status_.st_mtim; }

  // Reads the next bytes, up to the size that the file had when it was opened. Returns their
  // number, which is below the room only at the end of the file or after a problem.
  std::size_t read(std::span<std::byte> room);

  // Reads the bytes at the offset, from the device unless the system has yet to write them back.
  // Returns false if it cannot read all of them.
  bool read_again(std::uint64_t offset, std::span<std::byte> bytes) const;

  // Returns why the bytes read are no consistent copy of the file: an error or a change during the
  // read. Returns NULL if they are one. Called at the end.
  const char *problem() const;
  bool changed() const { return error_ == 0 && has_changed(); }
  bool vanished() const { return error_ == ENOENT; }

private:
  bool has_changed() const;

  Fd fd_;
  int error_ = 0;
  struct stat status_ {};
  std::uint64_t read_ = 0; // bytes
  bool short_ = false;     // the file ended before its size
};

} // namespace scrub

#endif
