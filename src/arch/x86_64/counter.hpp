// Reads the kernel's raw monotonic clock as the counter. The rate of the time-stamp counter does
// not divide 10^9; this clock is the same counter scaled to nanoseconds, constant in rate and
// monotonic across CPUs, and read without a system call if the kernel trusts the time-stamp
// counter.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_COUNTER_HPP
#define VORN_ARCH_X86_64_COUNTER_HPP

#include <cstdint>
#include <ctime>

#include "base/timespec.hpp"

namespace vorn::arch {

// In Hz.
inline std::uint64_t counter_frequency() { return 1000000000; }

inline std::uint64_t counter() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return nanoseconds(now);
}

} // namespace vorn::arch

#endif
