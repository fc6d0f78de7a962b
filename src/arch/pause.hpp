// Declares pause(), which tells the processor that a loop waits for memory that another CPU writes.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_PAUSE_HPP
#define VORN_ARCH_PAUSE_HPP

#if defined(__aarch64__)
#include "arch/aarch64/pause.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/pause.hpp"
#else
#error "no pause for this processor"
#endif

#endif
