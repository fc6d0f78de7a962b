// Declares sleeps of microseconds to milliseconds by a high-resolution timer of the library.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_FINE_SLEEP_HPP
#define SCRUB_FINE_SLEEP_HPP

#include <cstdint>

#include "vorn_sem_enhance.h"
#include "vorn_timer.h"

namespace scrub {

// Such a timer runs for at most a millisecond: its function arms it again until the sleep is over.
// The sleeping thread wakes once.
class FineSleep {
public:
  FineSleep() { vorn_sem_enhance_init(&over_, 0); }
  FineSleep(const FineSleep &) = delete;
  FineSleep &operator=(const FineSleep &) = delete;
  ~FineSleep();

  void sleep(std::uint64_t nanoseconds);

private:
  static void expired(std::uint64_t self);
  bool arm();

  vorn_timer_s timer_{};
  vorn_sem_enhance_s over_;
  std::uint64_t end_ = 0; // nanoseconds
};

} // namespace scrub

#endif
