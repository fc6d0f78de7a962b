// Reads the generic timer's virtual counter.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_COUNTER_HPP
#define VORN_ARCH_AARCH64_COUNTER_HPP

#include <cstdint>

namespace vorn::arch {

inline std::uint64_t counter() {
  std::uint64_t value;
  asm volatile("mrs %0, cntvct_el0" : "=r"(value)::"memory");
  return value;
}

// In Hz.
inline std::uint64_t counter_frequency() {
  std::uint64_t value;
  asm volatile("mrs %0, cntfrq_el0" : "=r"(value));
  return value;
}

} // namespace vorn::arch

#endif
