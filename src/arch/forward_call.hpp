// Declares VORN_FORWARD(from, to), which defines the exported function from. It passes all its
// arguments, of any number and types, to the function to, and returns the result of that.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_FORWARD_CALL_HPP
#define VORN_ARCH_FORWARD_CALL_HPP

#if defined(__aarch64__)
#include "arch/aarch64/forward_call.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/forward_call.hpp"
#else
#error "no forwarding jump for this processor"
#endif

#define VORN_FORWARD(from, to)                                                                     \
  asm(".pushsection .text\n"                                                                       \
      ".globl " #from "\n"                                                                         \
      ".type " #from ", %function\n" #from ":\n" VORN_FORWARD_JUMP(to) ".size " #from ", .-" #from \
                                                                       "\n"                        \
                                                                       ".popsection\n")

#endif
