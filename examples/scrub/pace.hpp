// Keeps the rate limit of the threads that read.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PACE_HPP
#define SCRUB_PACE_HPP

#include <atomic>
#include <cstdint>
#include <mutex>

#include "fine_sleep.hpp"
#include "rate_limit.hpp"

namespace scrub {

// Any thread may call any function.
class Pace {
public:
  explicit Pace(std::uint64_t bytes_per_second);

  // Counts bytes that are read without waiting.
  void add(std::uint64_t bytes);

  // Sleeps, in the thread's own timer, until a read of the bytes may begin, and counts them.
  // Returns early if stopped is set or the run is interrupted.
  void wait(std::uint64_t bytes, FineSleep &sleep, const std::atomic<bool> &stopped);

private:
  std::uint64_t begin(std::uint64_t bytes);

  const bool limited_;
  std::mutex mutex_; // guards rate_
  RateLimit rate_;
};

} // namespace scrub

#endif
