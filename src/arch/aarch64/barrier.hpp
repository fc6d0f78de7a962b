// Defines the barriers of AArch64. Acquire and release on a read-modify-write order neither earlier
// accesses with its write nor later accesses with its read, so both barriers are real instructions.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_BARRIER_HPP
#define VORN_ARCH_AARCH64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier() { asm volatile("dmb ish" ::: "memory"); }

inline void full_barrier_after_atomic() { full_barrier(); }

} // namespace vorn::arch

#endif
