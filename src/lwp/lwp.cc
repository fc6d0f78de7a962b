// Starts the LWP module, and holds its configuration.
// SPDX-License-Identifier: Apache-2.0
#include "lwp/lwp.hpp"

#include <atomic>
#include <cstdlib>

#include "base/bounded.hpp"
#include "base/log.hpp"
#include "base/once.hpp"
#include "vorn_time.h"

namespace vorn::lwp {
namespace {

constexpr std::uint32_t kLargestTable = 65535;
constexpr std::uint32_t kTraceOn = 1;

constinit std::atomic<std::uint32_t> max_instances{16};
constinit std::atomic<std::uint32_t> max_variables{4096};
constinit std::atomic<std::uint32_t> trace_state{0};

constinit Once started{OncePolicy::kRetry};

int set_table_size(std::atomic<std::uint32_t> &size, std::uint32_t n) {
  if (n == 0 || n > kLargestTable) return -1;
  size.store(n, std::memory_order_relaxed);
  return 0;
}

int start_variables() {
  const int result = LwpVarModuleInit();
  if (result != 0) VORN_LOG_AS("LwpModuleInit", kInfo, "Init lwp module var fail, ret:%d", result);
  return result;
}

int start_instances() {
  const int result = LwpInstModuleInit();
  if (result == 0) return 0;
  VORN_LOG_AS("LwpModuleInit", kInfo, "Init lwp module inst fail, ret:%d", result);
  drop_variables(); // the next start may have another configuration
  return result;
}

int start() {
  vorn_gettime_init();
  if (start_variables() == 0 && start_instances() == 0 && LwpDebugInit() == 0) return 0;
  VORN_LOG_AS("LwpModuleInit", kInfo, "Init lwp module fail");
  return -1;
}

} // namespace

std::uint32_t configured_instances() { return max_instances.load(std::memory_order_relaxed); }
std::uint32_t configured_variables() { return max_variables.load(std::memory_order_relaxed); }
bool tracing() { return trace_state.load(std::memory_order_relaxed) == kTraceOn; }

void *allocate_zeroed(std::size_t size) {
  void *memory = std::malloc(size);
  if (memory == nullptr) return nullptr;
  const int result = memset_s(memory, size, 0, size);
  if (result != 0) VORN_LOG(kInfo, "lwp var memset_s failed, ret=%d.", result);
  return memory;
}

} // namespace vorn::lwp

using namespace vorn::lwp;

int LwpCfgSetMaxInstNum(uint32_t n) { return set_table_size(max_instances, n); }

int LwpCfgSetMaxVarNum(uint32_t n) { return set_table_size(max_variables, n); }

int LwpCfgSetCtxTraceState(uint32_t s) {
  trace_state.store(s, std::memory_order_relaxed);
  return 0;
}

int LwpModuleInit() { return started.run(start); }

int LwpIsModuleInited() { return started.done() ? 0 : -1; }
