// Delays reads as the rate limit demands.
// SPDX-License-Identifier: Apache-2.0
#include "pace.hpp"

#include <algorithm>

#include "interrupt.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

// A thread that waits checks this often whether the run is over.
constexpr std::uint64_t kLongestSleep = 10'000'000; // nanoseconds

} // namespace

Pace::Pace(std::uint64_t bytes_per_second)
    : limited_(bytes_per_second != 0), rate_(bytes_per_second, vorn_time_getnanosec()) {}

void Pace::add(std::uint64_t bytes) {
  if (!limited_) return;
  const std::lock_guard hold(mutex_);
  rate_.add(bytes, vorn_time_getnanosec());
}

void Pace::keep(FineSleep &sleep, const std::atomic<bool> &stopped) {
  if (!limited_) return;
  while (const std::uint64_t left = delay()) {
    if (stopped || interrupted()) return;
    sleep.sleep(std::min(left, kLongestSleep));
  }
}

std::uint64_t Pace::delay() {
  const std::lock_guard hold(mutex_);
  return rate_.delay(vorn_time_getnanosec());
}

} // namespace scrub
