// Wraps the system's timers with checks of their arguments.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_timer_posix.h"

#include <csignal>
#include <ctime>

#include "base/log.hpp"

namespace vorn::timer {
namespace {

constexpr unsigned int kClocks = 4; // CLOCK_REALTIME to CLOCK_THREAD_CPUTIME_ID

template <class T> const void *address(T *pointer) { return pointer; }

} // namespace
} // namespace vorn::timer

using namespace vorn::timer;

int vorn_timer_create_posix(clockid_t clockid, struct sigevent *evp, timer_t *timerid) {
  if (evp == nullptr || timerid == nullptr)
    return VORN_FAIL(VORN_TIMER_POSIX_REFUSED,
                     "Argument NULL in vorn_timer_create_posix, evp: %p, timerid: %p!\n",
                     address(evp), address(timerid));
  if (static_cast<unsigned int>(clockid) >= kClocks)
    return VORN_FAIL(VORN_TIMER_POSIX_REFUSED,
                     "Argument clockid: %d is out of range in vorn_timer_create_posix!\n", clockid);
  return timer_create(clockid, evp, timerid);
}

int vorn_timer_settime_posix(timer_t timerid, int flags, const struct itimerspec *new_value,
                             struct itimerspec *old_value) {
  if (new_value == nullptr)
    return VORN_FAIL(VORN_TIMER_POSIX_REFUSED,
                     "Argument NULL in vorn_timer_settime_posix, timerid: %p, new_value: %p!\n",
                     timerid, address(new_value));
  return timer_settime(timerid, flags, new_value, old_value);
}

int vorn_timer_gettime_posix(timer_t timerid, struct itimerspec *curr_value) {
  if (curr_value == nullptr)
    return VORN_FAIL(VORN_TIMER_POSIX_REFUSED,
                     "Argument NULL in vorn_timer_gettime_posix, timerid: %p, curr_value: %p!\n",
                     timerid, address(curr_value));
  return timer_gettime(timerid, curr_value);
}

int vorn_timer_delete_posix(timer_t timerid) { return timer_delete(timerid); }

int vorn_timer_getoverrun_posix(timer_t timerid) { return timer_getoverrun(timerid); }
