// Lists the memory that each module of the process holds, according to the library's accounting.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_MEMORY_TABLE_HPP
#define SCRUB_MEMORY_TABLE_HPP

#include <cstdint>

#include "memory.hpp"

namespace scrub {

struct ModuleMemory {
  const char *name;
  std::int64_t bytes;
};

// Empty if the node has no kernel module, which accounts the memory.
Vector<ModuleMemory> memory_by_module();

} // namespace scrub

#endif
