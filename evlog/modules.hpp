// Holds the level and the rate-limit group of each module.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_MODULES_HPP
#define VORN_EVLOG_MODULES_HPP

#include <algorithm>
#include <array>
#include <atomic>

#include "evlog.h"

namespace logging {

inline constexpr unsigned int kModules = 1024;
inline constexpr unsigned int kModulesOfGroup = 16;
inline constexpr int kGroups = kModules / kModulesOfGroup;

// One level more than there are modules: all the ids above share the last, which is never set, so
// that the bound costs no branch. Filled before any code runs, as constructors log too.
using Levels = std::array<signed char, kModules + 1>;

consteval Levels start_levels() {
  Levels all{};
  all.fill(EVLOG_INFO);
  return all;
}

inline constinit Levels levels = start_levels();

inline int module_level(unsigned int module) {
  return std::atomic_ref(levels[std::min(module, kModules)]).load(std::memory_order_relaxed);
}

// False: no such module or level.
inline bool set_module_level(unsigned int module, int level) {
  if (module >= kModules || level < 0 || level > EVLOG_DEBUG) return false;
  std::atomic_ref(levels[module]).store(static_cast<signed char>(level), std::memory_order_relaxed);
  return true;
}

inline int group_of(unsigned int module) {
  return module < kModules ? static_cast<int>(module / kModulesOfGroup) : 0;
}

inline unsigned int first_module_of(int group) {
  return static_cast<unsigned int>(group) * kModulesOfGroup;
}

} // namespace logging

#endif
