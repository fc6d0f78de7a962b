// Owns a file descriptor.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_FD_HPP
#define SCRUB_FD_HPP

#include <cerrno>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace scrub {

class Fd {
public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  Fd &operator=(Fd &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Fd() {
    if (fd_ >= 0) close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }

private:
  int fd_;
};

// Writes the whole text. Returns 0 or an errno.
inline int write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t done = write(fd, text.data(), text.size());
    if (done == 0) return EIO;
    if (done < 0 && errno != EINTR) return errno;
    if (done > 0) text.remove_prefix(static_cast<std::size_t>(done));
  }
  return 0;
}

} // namespace scrub

#endif
