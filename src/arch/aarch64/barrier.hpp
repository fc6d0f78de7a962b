// Acquire and release on a read-modify-write order neither what stands before it with its write nor
// what stands behind it with its read: both barriers are real ones.
#ifndef VORN_ARCH_AARCH64_BARRIER_HPP
#define VORN_ARCH_AARCH64_BARRIER_HPP

namespace vorn::arch {

inline void full_barrier() { asm volatile("dmb ish" ::: "memory"); }

inline void full_barrier_after_atomic() { full_barrier(); }

} // namespace vorn::arch

#endif
