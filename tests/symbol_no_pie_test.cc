// test-without: pie
// Tests the symbol table in a program at a fixed address.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_symbol.h"

#include <dlfcn.h>

#include <gtest/gtest.h>

extern "C" __attribute__((noinline)) void symbol_fixed_probe() { asm volatile("nop"); }

TEST(SymbolTableOfAFixedProgram, NeedsNoBase) {
  const auto fixed = reinterpret_cast<std::uintptr_t>(symbol_fixed_probe);
  const auto exported = reinterpret_cast<std::uintptr_t>(dlsym(RTLD_DEFAULT, "vorn_symbol_fini"));
  char text[64];
  ASSERT_EQ(vorn_symbol_init(), 0);
  EXPECT_EQ(vorn_symbol_addr_to_string(fixed + 1, text, sizeof text), 0);
  EXPECT_STREQ(text, "symbol_fixed_probe+0x1");
  EXPECT_EQ(vorn_symbol_addr_to_string(exported, text, sizeof text), 0);
  EXPECT_STREQ(text, "vorn_symbol_fini+0x0");
}
