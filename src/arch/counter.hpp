// Declares the constant-rate counter that every timestamp is read from: counter() and
// counter_frequency().
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_COUNTER_HPP
#define VORN_ARCH_COUNTER_HPP

#if defined(__aarch64__)
#include "arch/aarch64/counter.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/counter.hpp"
#else
#error "no counter for this processor"
#endif

#endif
