// Reads a regular file from the medium, and notices changes during the read.
// SPDX-License-Identifier: Apache-2.0
#include "data_file.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace scrub {
namespace {

constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

} // namespace

std::span<std::byte> Buffer::room() {
  void *start = bytes_.data();
  std::size_t left = bytes_.size();
  return {static_cast<std::byte *>(std::align(kAlignment, size_, start, left)), size_};
}

// A file system without direct reads refuses the opening or the first read (EINVAL).
int DataFile::open(int directory, const char *name, bool cached) {
  const bool direct = !cached;
  fd_ = Fd(openat(directory, name, kFlags | (direct ? O_DIRECT : 0)));
  way_ = cached ? Way::kCached : Way::kDirect;
  if (!fd_ && direct && errno == EINVAL) {
    fd_ = Fd(openat(directory, name, kFlags));
    way_ = Way::kDropped;
  }
  if (!fd_) return errno == ELOOP || errno == ENXIO ? ESTALE : errno;
  return take(cached);
}

int DataFile::adopt(Fd fd, bool cached) {
  fd_ = std::move(fd);
  way_ = Way::kCached;
  if (!cached) {
    const int flags = fcntl(fd_.get(), F_GETFL);
    const bool direct = flags >= 0 && fcntl(fd_.get(), F_SETFL, flags | O_DIRECT) == 0;
    way_ = direct ? Way::kDirect : Way::kDropped;
  }
  return take(cached);
}

int DataFile::take(bool cached) {
  struct stat status {};
  if (fstat(fd_.get(), &status) != 0) return errno;
  if (!S_ISREG(status.st_mode)) return ESTALE;
  attributes_ = attributes_of(status);
  sparse_ = static_cast<std::uint64_t>(status.st_blocks) * 512 < attributes_.size;
  if (!cached && way() == Way::kDropped)
    posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_RANDOM); // read no more than what is asked for
  return 0;
}

ssize_t DataFile::read(std::uint64_t offset, std::span<std::byte> room) {
  const auto drop = [&] {
    if (way() == Way::kDropped)
      posix_fadvise(fd_.get(), static_cast<off_t>(offset), static_cast<off_t>(room.size()),
                    POSIX_FADV_DONTNEED);
  };
  drop();
  std::size_t filled = 0;
  while (filled < room.size()) {
    // Another thread may find out during this read that there are no direct reads.
    const bool direct = way() == Way::kDirect;
    const ssize_t got = pread(fd_.get(), room.data() + filled, room.size() - filled,
                              static_cast<off_t>(offset + filled));
    if (got > 0) filled += static_cast<std::size_t>(got);
    if (got == 0) break;
    if (got > 0 || errno == EINTR) {
      // A direct read that ends within a block has met the end of the file.
      if (way() == Way::kDirect && filled % kAlignment != 0) break;
      continue;
    }
    if (errno != EINVAL || !direct) return -1;
    const int flags = fcntl(fd_.get(), F_GETFL);
    if (flags < 0 || fcntl(fd_.get(), F_SETFL, flags & ~O_DIRECT) != 0) return -1;
    way_ = Way::kDropped;
    drop();
  }
  drop();
  return static_cast<ssize_t>(filled);
}

std::uint64_t DataFile::next_data(std::uint64_t offset) const {
  const off_t found = lseek(fd_.get(), static_cast<off_t>(offset), SEEK_DATA);
  if (found < 0) return errno == ENXIO ? std::max(offset, attributes_.size) : offset;
  return std::min(static_cast<std::uint64_t>(found), std::max(offset, attributes_.size));
}

std::uint64_t DataFile::next_hole(std::uint64_t offset) const {
  const off_t found = lseek(fd_.get(), static_cast<off_t>(offset), SEEK_HOLE);
  if (found < 0) return attributes_.size;
  return std::min(static_cast<std::uint64_t>(found), attributes_.size);
}

bool DataFile::has_changed() const {
  struct stat now {};
  if (fstat(fd_.get(), &now) != 0) return true;
  const Attributes found = attributes_of(now);
  return found.size != attributes_.size || !same_time(found.written, attributes_.written);
}

} // namespace scrub
