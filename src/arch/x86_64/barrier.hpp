// Defines the barriers of x86-64, where only a read may overtake an earlier write. A locked
// instruction prevents that at less cost than mfence, and every atomic read-modify-write is one.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_BARRIER_HPP
#define VORN_ARCH_X86_64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier() { asm volatile("lock; orl $0, -4(%%rsp)" ::: "memory", "cc"); }

inline void full_barrier_after_atomic() { asm volatile("" ::: "memory"); }

} // namespace vorn::arch

#endif
