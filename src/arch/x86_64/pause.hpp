// Defines pause() for x86-64. The instruction avoids the mis-speculation at the end of the loop,
// and leaves the core to its other hyperthread.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_PAUSE_HPP
#define VORN_ARCH_X86_64_PAUSE_HPP

namespace vorn::arch {

// About, of a processor that delays the thread by each pause. Some delay it a tenth of that.
inline constexpr unsigned int kPausesPerMicrosecond = 25;

inline void pause() { asm volatile("pause" ::: "memory"); }

} // namespace vorn::arch

#endif
