// Reads the tick counter of the kernel, or else derives it from the clock.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_jiffies.h"

#include "base/once.hpp"
#include "jiffies/jiffies_uio_adp.hpp"
#include "vorn_time.h"

namespace vorn::jiffies {
namespace {

constexpr uint64_t kNanosecondsPerJiffy = 4000000;

constinit Once module_start{OncePolicy::kRetry};
constinit Once map_start{OncePolicy::kRetry};

int start_module() {
  const int mapped = jiffies_usr_main();
  const uint64_t clock = vorn_gettime_init();
  return mapped == 0 || clock == 0 ? 0 : -1;
}

} // namespace
} // namespace vorn::jiffies

using namespace vorn::jiffies;

uint64_t vorn_get_jiffies() {
  if (!module_start.done()) jiffies_Init();
  const volatile uint64_t *counter = mapped_counter();
  if (counter != nullptr) return *counter;
  return vorn_time_getnanosec() / kNanosecondsPerJiffy;
}

void jiffies_Init() { module_start.run(start_module); }

int jiffies_fini(int value) { return value; }

int jiffies_usr_main() { return map_start.run(open_map); }
