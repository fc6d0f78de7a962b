// Restores errno at the end of a scope.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_KEPT_ERRNO_HPP
#define VORN_BASE_KEPT_ERRNO_HPP

#include <cerrno>

namespace vorn {

class KeptErrno {
public:
  KeptErrno() = default;
  KeptErrno(const KeptErrno &) = delete;
  KeptErrno &operator=(const KeptErrno &) = delete;
  ~KeptErrno() { errno = value_; }

  void put_back() const { errno = value_; }

private:
  const int value_ = errno;
};

} // namespace vorn

#endif
