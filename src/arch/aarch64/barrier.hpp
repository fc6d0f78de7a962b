// Defines the barrier of AArch64. Acquire and release leave an atomic read-modify-write half open:
// its read may move before earlier accesses, and later accesses may move before its write. So the
// barrier is a real instruction.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_BARRIER_HPP
#define VORN_ARCH_AARCH64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier_after_atomic() { asm volatile("dmb ish" ::: "memory"); }

} // namespace vorn::arch

#endif
