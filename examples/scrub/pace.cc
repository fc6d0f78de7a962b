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

void Pace::wait(std::uint64_t bytes, FineSleep &sleep, const std::atomic<bool> &stopped) {
  if (!limited_) return;
  while (const std::uint64_t left = begin(bytes)) {
    if (stopped || interrupted()) return;
    sleep.sleep(std::min(left, kLongestSleep));
  }
}

// Counts the bytes and returns 0, or returns how long the read has to wait. Both are one step, so
// that of several waiting threads one begins to read.
std::uint64_t Pace::begin(std::uint64_t bytes) {
  const std::lock_guard hold(mutex_);
  const std::uint64_t now = vorn_time_getnanosec();
  const std::uint64_t left = rate_.delay(now);
  if (left == 0) rate_.add(bytes, now);
  return left;
}

} // namespace scrub
