// Full barriers: what stands before them in the program is seen by every CPU before what stands
// behind them, reads and writes alike.
//
//   full_barrier()               between any two accesses
//   full_barrier_after_atomic()  behind an atomic read-modify-write, when nothing was written
//   since:
//                                free where the read-modify-write is a full barrier itself
//
// The thread sanitizer does not model fences: what it must see ordered is ordered by acquire loads
// and release stores as well.
#ifndef VORN_ARCH_BARRIER_HPP
#define VORN_ARCH_BARRIER_HPP

#if defined(__aarch64__)
#include "arch/aarch64/barrier.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/barrier.hpp"
#else
#error "no barriers for this processor"
#endif

#endif
