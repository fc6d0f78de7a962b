// Defines pause() for AArch64. It executes the hint for a spinning thread; cores without
// hyperthreads ignore the hint.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_PAUSE_HPP
#define VORN_ARCH_AARCH64_PAUSE_HPP

namespace vorn::arch {

// About, if the hint is ignored.
inline constexpr unsigned int kPausesPerMicrosecond = 200;

inline void pause() { asm volatile("yield" ::: "memory"); }

} // namespace vorn::arch

#endif
