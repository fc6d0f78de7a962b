// The time-stamp counter does not tick at a rate that divides 10^9, so its place is taken by the
// kernel's raw monotonic clock: the same counter scaled to nanoseconds, at a constant rate and
// monotonic across CPUs, read without a system call where the kernel trusts the time-stamp counter.
#ifndef VORN_ARCH_X86_64_COUNTER_HPP
#define VORN_ARCH_X86_64_COUNTER_HPP

#include <cstdint>
#include <ctime>

#include "base/timespec.hpp"

namespace vorn::arch {

// Ticks a second.
inline std::uint64_t counter_frequency() { return 1000000000; }

inline std::uint64_t counter() {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return nanoseconds(now);
}

} // namespace vorn::arch

#endif
