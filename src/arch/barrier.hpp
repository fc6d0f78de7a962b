// Defines a full barrier: every CPU sees the accesses before it before those after it.
//
//   full_barrier_after_atomic()  right after an atomic read-modify-write, with no write in between;
//                                free if the read-modify-write is itself a full barrier
//
// The thread sanitizer does not model fences: the code also uses acquire loads and release stores
// for the order that the sanitizer must see.
// SPDX-License-Identifier: Apache-2.0
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
