// Disables cancellation of the calling thread for a scope, in which a cancelled thread would leave
// a lock held, a child unreaped or a descriptor open. A cancellation that arrives meanwhile takes
// effect at the thread's next cancellation point after the scope.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_CANCELLATION_GUARD_HPP
#define VORN_BASE_CANCELLATION_GUARD_HPP

#include <pthread.h>

namespace vorn {

class CancellationGuard {
public:
  CancellationGuard() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  CancellationGuard(const CancellationGuard &) = delete;
  CancellationGuard &operator=(const CancellationGuard &) = delete;
  ~CancellationGuard() { pthread_setcancelstate(before_, nullptr); }

private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

} // namespace vorn

#endif
