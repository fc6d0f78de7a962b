// Names the general registers in a fault report of x86-64.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_X86_64_FAULT_CONTEXT_HPP
#define VORN_ARCH_X86_64_FAULT_CONTEXT_HPP

#include <ucontext.h>

namespace vorn::arch {

inline constexpr NamedRegister kRegisters[] = {
    {"RAX", 0},  {"RBX", 1},  {"RCX", 2},  {"RDX", 3},
    {"RSI", 4},  {"RDI", 5},  {"RBP", 6},  {"R8", 7},
    {"R9", 8},   {"R10", 9},  {"R11", 10}, {"R12", 11},
    {"R13", 12}, {"R14", 13}, {"R15", 14}, {"RSP", VORN_FAULT_SP},
};

inline constexpr unsigned int kFramePointer = 6;

// A call leaves its return address in memory, where this word of the record points.
inline constexpr unsigned int kReturnWord = VORN_FAULT_SP;
inline constexpr bool kReturnIsOnStack = true;

inline RegisterRecord registers_of(const ucontext_t &context) {
  constexpr int kOrder[] = {REG_RAX, REG_RBX, REG_RCX, REG_RDX, REG_RSI, REG_RDI, REG_RBP, REG_R8,
                            REG_R9,  REG_R10, REG_R11, REG_R12, REG_R13, REG_R14, REG_R15};
  const auto &saved = context.uc_mcontext.gregs;
  RegisterRecord record{};
  std::uint64_t *word = record.words;
  for (const int number : kOrder)
    *word++ = static_cast<std::uint64_t>(saved[number]);
  record.words[VORN_FAULT_SP] = static_cast<std::uint64_t>(saved[REG_RSP]);
  record.words[VORN_FAULT_PC] = static_cast<std::uint64_t>(saved[REG_RIP]);
  record.words[VORN_FAULT_STATE] = static_cast<std::uint64_t>(saved[REG_EFL]);
  return record;
}

inline std::uintptr_t plain_code_address(std::uintptr_t address) { return address; }

} // namespace vorn::arch

#endif
