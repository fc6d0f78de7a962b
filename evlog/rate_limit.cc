// Counts the messages of each group in its current interval, under one mutex.
// SPDX-License-Identifier: Apache-2.0
#include "rate_limit.hpp"

#include <array>
#include <atomic>
#include <chrono>
#include <utility>

#include "base/mutex.hpp"
#include "modules.hpp"
#include "signal_stack.hpp"

namespace logging {

namespace {

using Clock = std::chrono::steady_clock;

// Because of the flag, groups without a limit skip the mutex. The mutex guards everything else.
struct Limit {
  std::atomic<bool> on{false};
  unsigned int burst = 0;
  std::chrono::milliseconds interval{0};
  Clock::time_point end{}; // of the current interval
  unsigned int written = 0;
  unsigned long dropped = 0;
};

constinit vorn::Mutex mutex;
constinit std::array<Limit, kGroups> limits;

} // namespace

bool admit_message(int group, unsigned long *dropped) {
  *dropped = 0;
  Limit &limit = limits[static_cast<unsigned int>(group)];
  if (!limit.on.load(std::memory_order_relaxed) || on_signal_stack()) return true;

  vorn::MutexGuard hold{mutex};
  if (!limit.on.load(std::memory_order_relaxed)) return true;
  const Clock::time_point now = Clock::now();
  if (now >= limit.end) {
    limit.end = now + limit.interval;
    limit.written = 0;
    *dropped = std::exchange(limit.dropped, 0);
  }
  if (limit.written == limit.burst) {
    ++limit.dropped;
    return false;
  }
  ++limit.written;
  return true;
}

bool set_rate_limit(int group, unsigned int burst, unsigned int interval_ms,
                    unsigned long *dropped) {
  if (group < 0 || group >= kGroups) return false;
  Limit &limit = limits[static_cast<unsigned int>(group)];

  vorn::MutexGuard hold{mutex};
  limit.on.store(burst != 0 && interval_ms != 0, std::memory_order_relaxed);
  limit.burst = burst;
  limit.interval = std::chrono::milliseconds{interval_ms};
  limit.end = {};
  *dropped = std::exchange(limit.dropped, 0);
  return true;
}

} // namespace logging
