// Converts the system's times to nanoseconds and back.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_TIMESPEC_HPP
#define VORN_BASE_TIMESPEC_HPP

#include <cstdint>
#include <ctime>

namespace vorn {

inline std::uint64_t nanoseconds(const timespec &time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

inline timespec timespec_of(std::uint64_t nanoseconds) {
  return {static_cast<std::time_t>(nanoseconds / 1000000000),
          static_cast<long>(nanoseconds % 1000000000)};
}

inline std::uint64_t monotonic_nanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return nanoseconds(now);
}

// Returns the time on CLOCK_MONOTONIC that is the given nanoseconds from now.
inline timespec monotonic_after(std::uint64_t nanoseconds_from_now) {
  return timespec_of(monotonic_nanoseconds() + nanoseconds_from_now);
}

} // namespace vorn

#endif
