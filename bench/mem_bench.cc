// bench-links: vornsim
// Compares the accounting allocator, with the counters of the stand-in, with the system's
// allocator. Both write one byte of each block, as a user of the block would.
// SPDX-License-Identifier: Apache-2.0
#include <cstdlib>
#include <string>

#include "support/bench.hpp"
#include "vorn_mem.h"

namespace {

constexpr unsigned int kModule = 900;

void *touched(void *block) {
  *static_cast<volatile char *>(block) = 1;
  return block;
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "Allocator"};
  for (const unsigned int size : {16u, 64u, 512u, 4096u, 65536u}) {
    table.row(("allocate and free " + std::to_string(size) + " bytes").c_str(),
              {bench::ours([=] { vorn_free(touched(vorn_malloc(kModule, size))); }),
               bench::peer("malloc", [=] { std::free(touched(std::malloc(size))); })});
  }
}
