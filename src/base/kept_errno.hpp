// Keeps the errno of a failed call over a record of it, which may leave another.
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

  int value() const { return value_; }

private:
  int value_ = errno;
};

} // namespace vorn

#endif
