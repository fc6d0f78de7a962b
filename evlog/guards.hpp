// What a logging call leaves as it found it.
#ifndef VORN_EVLOG_GUARDS_HPP
#define VORN_EVLOG_GUARDS_HPP

#include <cerrno>
#include <pthread.h>

namespace logging {

class KeepErrno {
public:
  KeepErrno() : saved_(errno) {}
  KeepErrno(const KeepErrno &) = delete;
  KeepErrno &operator=(const KeepErrno &) = delete;
  ~KeepErrno() { errno = saved_; }

private:
  int saved_;
};

// A thread cancelled in open or write would leave the locks behind.
class NoCancel {
public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &saved_); }
  NoCancel(const NoCancel &) = delete;
  NoCancel &operator=(const NoCancel &) = delete;
  ~NoCancel() { pthread_setcancelstate(saved_, nullptr); }

private:
  int saved_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace logging

#endif
