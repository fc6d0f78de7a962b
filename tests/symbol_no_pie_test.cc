// test-without: pie
#include "vorn_symbol.h"

#include <dlfcn.h>
#include <link.h>

#include <gtest/gtest.h>

extern "C" __attribute__((noinline)) void symbol_fixed_probe() { asm volatile("nop"); }

TEST(SymbolTableOfAFixedProgram, NeedsNoBase) {
  const auto program_base = [](dl_phdr_info *info, std::size_t, void *base) {
    *static_cast<std::uintptr_t *>(base) = info->dlpi_addr;
    return 1;
  };
  std::uintptr_t base = 1;
  dl_iterate_phdr(program_base, &base);
  ASSERT_EQ(base, 0u);

  char text[64];
  ASSERT_EQ(vorn_symbol_init(), 0);
  const auto probe = reinterpret_cast<std::uintptr_t>(symbol_fixed_probe);
  EXPECT_EQ(vorn_symbol_addr_to_string(probe + 1, text, sizeof text), 0);
  EXPECT_STREQ(text, "symbol_fixed_probe+0x1");
  const auto exported = reinterpret_cast<std::uintptr_t>(dlsym(RTLD_DEFAULT, "vorn_symbol_fini"));
  EXPECT_EQ(vorn_symbol_addr_to_string(exported, text, sizeof text), 0);
  EXPECT_STREQ(text, "vorn_symbol_fini+0x0");
  vorn_symbol_fini();
}
