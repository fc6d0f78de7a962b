// Sleeps by a high-resolution timer.
// SPDX-License-Identifier: Apache-2.0
#include "fine_sleep.hpp"

#include <algorithm>

#include "timer_table.hpp"
#include "vorn_hr_timer.h"
#include "vorn_sched.h"
#include "vorn_time.h"

namespace scrub {

// The timer's function may still be raising the semaphore.
FineSleep::~FineSleep() {
  if (end_ != 0) vorn_timer_delete_sync(&timer_);
}

void FineSleep::sleep(std::uint64_t nanoseconds) {
  end_ = vorn_time_getnanosec() + nanoseconds;
  if (arm()) {
    vorn_sem_enhance_down(&over_);
  } else {
    vorn_usleep(static_cast<unsigned int>(nanoseconds / 1000 + 1));
  }
}

// If the timer cannot be armed again, the sleep ends early: the sleeper checks the time itself.
void FineSleep::expired(std::uint64_t self) {
  auto &sleep = *reinterpret_cast<FineSleep *>(self);
  timer_table().note("rate limit", sleep.timer_);
  if (!sleep.arm()) vorn_sem_enhance_up(&sleep.over_);
}

// Returns false if no time is left or no timer can be armed.
bool FineSleep::arm() {
  const std::uint64_t now = vorn_time_getnanosec();
  if (now >= end_) return false;
  const std::uint64_t left = std::min<std::uint64_t>(end_ - now, VORN_HR_TIMER_MAX);
  return vorn_timer_set(&timer_, left, reinterpret_cast<std::uint64_t>(this), expired) == 0 &&
         vorn_timer_add_ns(&timer_) == 0;
}

} // namespace scrub
