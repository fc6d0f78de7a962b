// Reads a regular file, and notices changes during the read.
// SPDX-License-Identifier: Apache-2.0
#include "data_file.hpp"

#include <algorithm>
#include <cstring>
#include <fcntl.h>

#include "interrupt.hpp"

namespace scrub {
namespace {

bool same_time(const timespec &a, const timespec &b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

} // namespace

bool DataFile::open(int directory, const char *name) {
  fd_ = Fd(openat(directory, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!fd_ || fstat(fd_.get(), &status_) != 0) {
    error_ = errno;
    return false;
  }
  // It may have been replaced since the walk saw a regular file.
  if (!S_ISREG(status_.st_mode)) error_ = ENOENT;
  return error_ == 0;
}

std::size_t DataFile::read(std::span<std::byte> room) {
  std::size_t filled = 0;
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(size() - read_, room.size()));
  while (filled < wanted && error_ == 0) {
    check_interrupt();
    const ssize_t got = ::read(fd_.get(), room.data() + filled, wanted - filled);
    if (got > 0) filled += static_cast<std::size_t>(got);
    if (got < 0 && errno != EINTR) error_ = errno;
    if (got == 0) {
      short_ = true;
      break;
    }
  }
  read_ += filled;
  return filled;
}

bool DataFile::read_again(std::uint64_t offset, std::span<std::byte> bytes) const {
  const auto start = static_cast<off_t>(offset);
  posix_fadvise(fd_.get(), start, static_cast<off_t>(bytes.size()), POSIX_FADV_DONTNEED);
  for (std::size_t filled = 0; filled < bytes.size();) {
    const ssize_t got = pread(fd_.get(), bytes.data() + filled, bytes.size() - filled,
                              start + static_cast<off_t>(filled));
    if (got > 0) filled += static_cast<std::size_t>(got);
    if (got == 0 || (got < 0 && errno != EINTR)) return false;
  }
  return true;
}

const char *DataFile::problem() const {
  if (error_ != 0) return std::strerror(error_);
  return has_changed() ? "changed while it was read" : nullptr;
}

bool DataFile::has_changed() const {
  struct stat now {};
  return short_ || fstat(fd_.get(), &now) != 0 || now.st_size != status_.st_size ||
         !same_time(now.st_mtim, status_.st_mtim);
}

} // namespace scrub
