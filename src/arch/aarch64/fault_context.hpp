// Names the registers in a fault report of AArch64: x0 to x30 as R0 to R30. x29 is the frame
// pointer, x30 the return address.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_AARCH64_FAULT_CONTEXT_HPP
#define VORN_ARCH_AARCH64_FAULT_CONTEXT_HPP

#include <ucontext.h>

namespace vorn::arch {

inline constexpr NamedRegister kRegisters[] = {
    {"R0", 0},   {"R1", 1},   {"R2", 2},   {"R3", 3},   {"R4", 4},   {"R5", 5},   {"R6", 6},
    {"R7", 7},   {"R8", 8},   {"R9", 9},   {"R10", 10}, {"R11", 11}, {"R12", 12}, {"R13", 13},
    {"R14", 14}, {"R15", 15}, {"R16", 16}, {"R17", 17}, {"R18", 18}, {"R19", 19}, {"R20", 20},
    {"R21", 21}, {"R22", 22}, {"R23", 23}, {"R24", 24}, {"R25", 25}, {"R26", 26}, {"R27", 27},
    {"R28", 28}, {"R29", 29}, {"R30", 30},
};

inline constexpr unsigned int kFramePointer = 29;

// A call leaves its return address in this word of the record.
inline constexpr unsigned int kReturnWord = 30;
inline constexpr bool kReturnIsOnStack = false;

inline RegisterRecord registers_of(const ucontext_t &context) {
  RegisterRecord record{};
  for (unsigned int i = 0; i <= 30; ++i)
    record.words[i] = context.uc_mcontext.regs[i];
  record.words[VORN_FAULT_SP] = context.uc_mcontext.sp;
  record.words[VORN_FAULT_PC] = context.uc_mcontext.pc;
  record.words[VORN_FAULT_STATE] = context.uc_mcontext.pstate;
  return record;
}

// Removes the signature that pointer authentication puts into the upper bits.
inline std::uintptr_t plain_code_address(std::uintptr_t address) {
  return address & ((std::uintptr_t{1} << 48) - 1);
}

} // namespace vorn::arch

#endif
