// Asks the library for the memory of each module.
// SPDX-License-Identifier: Apache-2.0
#include "memory_table.hpp"

#include "vorn_process.h"

namespace scrub {
namespace {

constexpr unsigned int kModules = 1024; // ids

} // namespace

Vector<ModuleMemory> memory_by_module() {
  Vector<ModuleMemory> modules;
  for (unsigned int id = 0; id < kModules; ++id) {
    std::int64_t bytes = 0;
    if (vorn_mem_stat_get(id, &bytes) != 0) break; // for every id alike
    if (bytes != 0) modules.push_back({vorn_pid_get_name(id), bytes});
  }
  return modules;
}

} // namespace scrub
