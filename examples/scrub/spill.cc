// Reads and writes temporary files without a name.
// SPDX-License-Identifier: Apache-2.0
#include "spill.hpp"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "errors.hpp"

namespace scrub {
namespace {

constexpr std::size_t kBufferSize = 64 * 1024;

std::span<std::byte> bytes_of(Candidate &candidate) {
  return std::as_writable_bytes(std::span(&candidate, 1));
}

} // namespace

std::uint64_t TemporaryFile::add(std::span<const std::byte> bytes) {
  if (buffer_.size() + bytes.size() > kBufferSize) flush();
  const std::uint64_t offset = written_ + buffer_.size();
  buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
  return offset;
}

void TemporaryFile::read(std::uint64_t offset, std::span<std::byte> bytes) {
  if (offset < written_ && bytes.size() > written_ - offset) {
    const auto in_file = static_cast<std::size_t>(written_ - offset);
    read(offset, bytes.first(in_file));
    return read(written_, bytes.subspan(in_file));
  }
  if (offset >= written_) {
    std::copy_n(buffer_.begin() + static_cast<std::ptrdiff_t>(offset - written_), bytes.size(),
                bytes.begin());
    return;
  }
  for (std::size_t filled = 0; filled < bytes.size();) {
    const ssize_t got = pread(fd_.get(), bytes.data() + filled, bytes.size() - filled,
                              static_cast<off_t>(offset + filled));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) fail("cannot read a temporary file in " + directory_, got < 0 ? errno : EIO);
    filled += static_cast<std::size_t>(got);
  }
}

void TemporaryFile::write(std::uint64_t offset, std::span<const std::byte> bytes) {
  if (offset >= written_) {
    std::ranges::copy(bytes, buffer_.begin() + static_cast<std::ptrdiff_t>(offset - written_));
    return;
  }
  write_out(offset, bytes);
}

void TemporaryFile::write_out(std::uint64_t offset, std::span<const std::byte> bytes) {
  for (std::size_t done = 0; done < bytes.size();) {
    const ssize_t got = pwrite(fd_.get(), bytes.data() + done, bytes.size() - done,
                               static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) fail("cannot write a temporary file in " + directory_);
    done += static_cast<std::size_t>(got);
  }
}

void TemporaryFile::flush() {
  if (buffer_.empty()) return;
  if (!fd_) open();
  write_out(written_, buffer_);
  written_ += buffer_.size();
  buffer_.clear();
}

// The last resort is memory, for a system where nothing can be written.
void TemporaryFile::open() {
  for (const char *directory : {directory_.c_str(), "/tmp"}) {
    fd_ = Fd(::open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (fd_) return;
  }
  fd_ = Fd(memfd_create("vorn-scrub", MFD_CLOEXEC));
  if (!fd_) fail("cannot make a temporary file in " + directory_);
}

void SpillList::add(Candidate candidate, std::string_view path) {
  candidate.path_at = paths_.add(std::as_bytes(std::span(path)));
  candidate.path_size = path.size();
  records_.add(bytes_of(candidate));
  ++size_;
}

Candidate SpillList::get(std::uint64_t index) {
  Candidate candidate;
  records_.read(index * sizeof candidate, bytes_of(candidate));
  return candidate;
}

void SpillList::put(std::uint64_t index, const Candidate &candidate) {
  records_.write(index * sizeof candidate, std::as_bytes(std::span(&candidate, 1)));
}

String SpillList::path(const Candidate &candidate) {
  String path(candidate.path_size, '\0');
  paths_.read(candidate.path_at, std::as_writable_bytes(std::span(path)));
  return path;
}

} // namespace scrub
