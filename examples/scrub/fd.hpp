// Owns a file descriptor.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_FD_HPP
#define SCRUB_FD_HPP

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

} // namespace scrub

#endif
