// The hint for a spinning thread. Cores without hyperthreads take it for a no-operation.
#ifndef VORN_ARCH_AARCH64_PAUSE_HPP
#define VORN_ARCH_AARCH64_PAUSE_HPP

namespace vorn::arch {

inline void pause() { asm volatile("yield" ::: "memory"); }

} // namespace vorn::arch

#endif
