// Owns a file descriptor.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_UNIQUE_FD_HPP
#define VORN_BASE_UNIQUE_FD_HPP

#include <unistd.h>
#include <utility>

#include "base/cancellation_guard.hpp"

namespace vorn {

class UniqueFd {
public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() {
    if (fd_ < 0) return;
    const CancellationGuard off;
    close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }

  // Leaves the descriptor to the caller.
  int release() { return std::exchange(fd_, -1); }

private:
  int fd_;
};

} // namespace vorn

#endif
