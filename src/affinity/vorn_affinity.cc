// Reads the affinity levels and binds threads to their CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_affinity.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "vorn_bitops.h"
#include "vorn_cst.h"
#include "vorn_thrd.h"

namespace vorn::affinity {
namespace {

using Level = vorn_affinity_level_s;
static_assert(offsetof(Level, name) == 0);
static_assert(offsetof(Level, cpuset) == 64);
static_assert(sizeof(Level) == 64 + VORN_THRD_CPUSET_SIZE);

constexpr char kProcess[] = "app_data";
constexpr char kLevelName[] = "affinity_level_1";
constexpr char kItem[] = "THREAD_CPU_AFFINITY_LIST";

// Written before the flag is set, and read only after that. A level that is not configured has no
// name.
constinit Level level_1{};
constinit Once started{OncePolicy::kRetry};

void vorn_parse_affinity_value(char *value, Level &level) {
  char *rest = nullptr;
  for (const char *item = strtok_r(value, ",", &rest); item != nullptr;
       item = strtok_r(nullptr, ",", &rest)) {
    // A negative number becomes a very large one.
    const auto cpu = static_cast<unsigned long>(std::strtol(item, nullptr, 10));
    if (cpu < VORN_THRD_CPU_COUNT) vorn_set_bit(static_cast<uint32_t>(cpu), level.cpuset);
  }
}

int vorn_parse_affinity_level(const char *name, Level &level) {
  level = {};
  char value[256];
  if (vorn_cst_getItem(name, kItem, value, sizeof value) != 0) {
    VORN_LOG(kInfo, "Can not find the item(%s) in section(%s).", kItem, name);
    return -1;
  }
  if (strcpy_s(level.name, sizeof level.name, name) != 0)
    return VORN_FAIL(-1, "strncpy_s to affinitySet.affinityLevelName from %s failed.", name);
  vorn_parse_affinity_value(value, level);
  return 0;
}

// A level that is not configured does not fail the start.
int start() {
  char process[32];
  if (vorn_get_process_name(process, sizeof process) != 0) {
    VORN_LOG_AS("vorn_affinity_init", kInfo, "vorn_get_process_name failed, can't set affinity.");
    return -1;
  }
  if (std::strcmp(process, kProcess) == 0) vorn_parse_affinity_level(kLevelName, level_1);
  return 0;
}

} // namespace
} // namespace vorn::affinity

using namespace vorn::affinity;

int vorn_affinity_init() { return started.run(start); }

const vorn_affinity_level_s *vorn_get_affinity_entity(const char *name) {
  const vorn_affinity_level_s &level = level_1;
  if (name == nullptr || !started.done() || level.name[0] == '\0') return nullptr;
  return std::strcmp(name, level.name) == 0 ? &level : nullptr;
}

int vorn_set_thread_affinity(pthread_t thread, const char *name) {
  if (name == nullptr) return -1;
  const vorn_affinity_level_s *level = vorn_get_affinity_entity(name);
  if (level == nullptr) return 0;
  const auto *cpuset = reinterpret_cast<const unsigned char *>(level->cpuset);
  if (vorn_thrd_setbindcpu(thread, cpuset) == 0) return 0;
  VORN_LOG(vorn::kInfo, "vorn_thrd_setbindcpu for tid(%lu) with(%s) failed.", thread, name);
  return -1;
}

int vorn_affinity_exit() { return 0; }
