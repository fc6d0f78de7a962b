// Describes the registers that a signal handler finds: their names, their order in the register
// record (vorn_sig_calltrace.h), and their places in a ucontext_t.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_ARCH_FAULT_CONTEXT_HPP
#define VORN_ARCH_FAULT_CONTEXT_HPP

#include <cstdint>

#include "vorn_sig_calltrace.h"

namespace vorn::arch {

struct NamedRegister {
  const char *name;
  unsigned int word; // of the record
};

struct RegisterRecord {
  std::uint64_t words[VORN_FAULT_REGISTERS];
};

} // namespace vorn::arch

#if defined(__aarch64__)
#include "arch/aarch64/fault_context.hpp"
#elif defined(__x86_64__)
#include "arch/x86_64/fault_context.hpp"
#else
#error "no registers for this processor"
#endif

#endif
