// Defines the barriers of AArch64. Acquire and release leave an atomic read-modify-write half open:
// its read may move before earlier accesses, and later accesses may move before its write. So both
// barriers are real instructions.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_BARRIER_HPP
#define VORN_ARCH_AARCH64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier() { asm volatile("dmb ish" ::: "memory"); }

inline void full_barrier_after_atomic() { full_barrier(); }

} // namespace vorn::arch

#endif
