// The memory that each module of the process holds, by the library's account.
#ifndef SCRUB_MEMORY_TABLE_HPP
#define SCRUB_MEMORY_TABLE_HPP

#include <cstdint>

#include "memory.hpp"

namespace scrub {

struct ModuleMemory {
  const char *name;
  std::int64_t bytes;
};

// Empty where the node has no kernel module, which keeps the account.
Vector<ModuleMemory> memory_by_module();

} // namespace scrub

#endif
