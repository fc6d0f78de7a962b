// A thread cancelled in open or write would leave the locks behind.
#ifndef VORN_EVLOG_NO_CANCEL_HPP
#define VORN_EVLOG_NO_CANCEL_HPP

#include <pthread.h>

namespace logging {

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
