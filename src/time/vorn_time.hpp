// Declares the arithmetic of the time base: rounded frequencies, and nanoseconds per count.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TIME_HPP
#define VORN_TIME_HPP

#include <cstdint>

namespace vorn::time {

// Rounds a frequency in Hz to the nearest multiple of 10 MHz; a tie goes up.
constexpr std::uint64_t round_frequency(std::uint64_t frequency) {
  constexpr std::uint64_t kStep = 10000000;
  const std::uint64_t lower = frequency - frequency % kStep;
  const std::uint64_t upper = lower == frequency ? lower : lower + kStep;
  return upper - frequency > frequency - lower ? lower : upper;
}

// Returns the whole nanoseconds of one count of the counter; 0 for a frequency of 0.
constexpr std::uint64_t tick_nanoseconds(std::uint64_t frequency) {
  return frequency == 0 ? 0 : 1000000000 / frequency;
}

} // namespace vorn::time

#endif
