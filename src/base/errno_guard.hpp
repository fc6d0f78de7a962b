// Restores errno at the end of a scope.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_ERRNO_GUARD_HPP
#define VORN_BASE_ERRNO_GUARD_HPP

#include <cerrno>

namespace vorn {

class ErrnoGuard {
public:
  ErrnoGuard() = default;
  ErrnoGuard(const ErrnoGuard &) = delete;
  ErrnoGuard &operator=(const ErrnoGuard &) = delete;
  ~ErrnoGuard() { errno = value_; }

  void restore() const { errno = value_; }

private:
  const int value_ = errno;
};

} // namespace vorn

#endif
