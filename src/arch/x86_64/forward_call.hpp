// Defines VORN_FORWARD for x86-64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_FORWARD_CALL_HPP
#define VORN_ARCH_X86_64_FORWARD_CALL_HPP

// The jump goes through the linkage table, so that a process may replace the function.
#define VORN_FORWARD_JUMP(to) "  endbr64\n  jmp " #to "@PLT\n"

#endif
