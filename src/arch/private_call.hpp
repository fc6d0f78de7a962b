// Declares private_call(), the system call that the node's kernel module claims.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_PRIVATE_CALL_HPP
#define VORN_ARCH_PRIVATE_CALL_HPP

#if defined(__aarch64__)
#include "arch/aarch64/private_call.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/private_call.hpp"
#else
#error "no private call for this processor"
#endif

#endif
