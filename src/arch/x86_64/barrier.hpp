// Defines the barrier of x86-64, where only a read may overtake an earlier write. Every atomic
// read-modify-write is a locked instruction, which prevents that.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_BARRIER_HPP
#define VORN_ARCH_X86_64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier_after_atomic() { asm volatile("" ::: "memory"); }

} // namespace vorn::arch

#endif
