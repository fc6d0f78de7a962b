// A time of the system's in nanoseconds.
#ifndef VORN_BASE_TIMESPEC_HPP
#define VORN_BASE_TIMESPEC_HPP

#include <cstdint>
#include <ctime>

namespace vorn {

inline std::uint64_t nanoseconds(const timespec &time) {
  return static_cast<std::uint64_t>(time.tv_sec) * 1000000000 +
         static_cast<std::uint64_t>(time.tv_nsec);
}

} // namespace vorn

#endif
