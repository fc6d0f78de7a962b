// Holds the thread strategies: each is a nice value and a set of CPUs.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <cerrno>
#include <cstring>
#include <sys/resource.h>

#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "base/ratelimit.hpp"
#include "thread/vorn_thrd.hpp"
#include "vorn_cpu.h"

namespace vorn::thread {
namespace {

constexpr std::uint32_t kValid = 1;

static_assert(VORN_CPUM_MASK_WORDS == VORN_THRD_CPUSET_WORDS);

// vorn_initThreadStrategy writes the table without a lock: callers set it up before they start
// threads that use it.
struct Strategy {
  std::uint32_t flags;
  std::int32_t prio;
  std::uint64_t cpus[VORN_THRD_CPUSET_WORDS];

  bool valid() const { return (flags & kValid) != 0; }
};
constinit Strategy strategies[VORN_THRD_STRATEGY_COUNT]{};

constexpr const char *kNames[VORN_THRD_STRATEGY_COUNT] = {"Default", "Critical", "Ctrl",
                                                          "Manage",  "IO",       "BackGroud"};

constexpr int kPrioLevels[] = {-20, -15, 0, 10, 15};

// Returns the settings of a strategy, or NULL if it has none.
const Strategy *vorn_getValidThreadAttr(unsigned int strategy) {
  if (strategy >= VORN_THRD_STRATEGY_COUNT) {
    VORN_LOG(kInfo, "Invalid thread strategy %d.", static_cast<int>(strategy));
    return nullptr;
  }
  if (strategies[strategy].valid()) return &strategies[strategy];
  const Strategy &fallback = strategies[VORN_THRD_STRATEGY_DEFAULT];
  return fallback.valid() ? &fallback : nullptr;
}

int bind_to(const std::uint64_t *cpus) {
  return vorn_thrd_setbindcpu(pthread_self(), reinterpret_cast<const unsigned char *>(cpus));
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

int vorn_initThreadStrategy(unsigned int strategy, const vorn_thrd_strategy_s *settings) {
  if (settings == nullptr) return VORN_FAIL(-1, "Thread strategy settings are null.");
  if (strategy >= VORN_THRD_STRATEGY_COUNT) {
    VORN_LOG(vorn::kInfo, "Invalid thread strategy %d.", static_cast<int>(strategy));
    return -1;
  }
  Strategy &entry = strategies[strategy];
  entry.flags &= ~kValid;
  entry.prio = static_cast<std::int32_t>(settings->prio);
  std::memset(entry.cpus, 0, sizeof entry.cpus);
  if (vorn_cpum_parse_cpumask(settings->cpumask, entry.cpus) != 0) {
    VORN_LOG(vorn::kInfo, "Invalid cpu mask info:%s.",
             settings->cpumask != nullptr ? settings->cpumask : "(null)");
    return -1;
  }
  entry.flags |= kValid;
  return 0;
}

int vorn_setCurThreadStrategy(unsigned int strategy) {
  const Strategy *entry = vorn_getValidThreadAttr(strategy);
  if (entry == nullptr) return 0;
  // If the nice value is not permitted, the thread is still bound to its CPUs.
  const int prio_result = vorn_setCurThreadPrio(entry->prio);
  const int bind_result = bind_to(entry->cpus);
  if (prio_result != 0 || bind_result != 0) {
    VORN_LOG_RATELIMITED(vorn::kInfo, "Set thread strategy %d fail.", static_cast<int>(strategy));
    return -1;
  }
  if (t_record != nullptr)
    vorn::atomic_word(t_record->strategy)
        .store(static_cast<std::int32_t>(strategy), std::memory_order_relaxed);
  return 0;
}

int vorn_setCurThreadPrio(int prio) {
  const int result = setpriority(PRIO_PROCESS, 0, prio);
  if (result == 0) return 0;
  VORN_LOG_RATELIMITED(vorn::kWarning, "Set thread prio fail %d, errno %d.", result, errno);
  return -1;
}

void vorn_thrd_setprio(unsigned int level) {
  if (level < std::size(kPrioLevels)) vorn_setCurThreadPrio(kPrioLevels[level]);
}

int vorn_setCurThreadBind(const char *cpumask) {
  std::uint64_t cpus[VORN_THRD_CPUSET_WORDS] = {};
  if (vorn_cpum_parse_cpumask(cpumask, cpus) != 0)
    return VORN_FAIL_AS("vorn_thrd_setbindcpustr", -1,
                        "Bind thread:%lu to cpu:%s fail, invalid cpu mask.", pthread_self(),
                        cpumask != nullptr ? cpumask : "(null)");
  return bind_to(cpus);
}

int vorn_showThreadStrategyDbg(vorn_print_f print) {
  if (print == nullptr) return VORN_FAIL(-1, "Print function is null.");
  print("%-10s %-10s %-4s %-s\n", "Strategy", "Flags", "Prio", "CpuMask");
  for (unsigned int i = 0; i < VORN_THRD_STRATEGY_COUNT; ++i) {
    const Strategy &entry = strategies[i];
    print("%-10s 0x%08x %-4d 0x%016lx %016lx %016lx %016lx\n", kNames[i], entry.flags, entry.prio,
          entry.cpus[0], entry.cpus[1], entry.cpus[2], entry.cpus[3]);
  }
  return 0;
}
