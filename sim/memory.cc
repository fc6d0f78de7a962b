// Answers requests for the machine's free memory and for the process's table of memory by module.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdint>
#include <sys/sysinfo.h>

#include "answers.hpp"
#include "console.hpp"

namespace vornsim {
namespace {

alignas(64) constinit std::atomic<std::uint64_t> table[VORN_MODULE_ID_COUNT] = {};

} // namespace

long free_memory(const Arguments &arguments) {
  auto *kilobytes = pointer<unsigned long>(arguments[0]);
  if (kilobytes == nullptr) return refuse(EFAULT);
  struct sysinfo info {};
  if (sysinfo(&info) != 0) return -1;
  *kilobytes = info.freeram * info.mem_unit / 1024;
  return 0;
}

long memory_table(const Arguments &arguments) {
  auto *address = pointer<std::uint64_t>(arguments[0]);
  if (address == nullptr) return refuse(EFAULT);
  *address = reinterpret_cast<std::uint64_t>(&table);
  return 0;
}

long dump_memory(const Arguments &) {
  for (unsigned int id = 0; id < VORN_MODULE_ID_COUNT; ++id) {
    const std::uint64_t used = table[id].load(std::memory_order_relaxed);
    if (used != 0) print("vornsim: module %u uses %lld bytes\n", id, static_cast<long long>(used));
  }
  return 0;
}

} // namespace vornsim
