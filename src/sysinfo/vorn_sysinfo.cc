#include "vorn_sysinfo.h"

#include <atomic>
#include <cerrno>
#include <unistd.h>

#include "base/log.hpp"

namespace vorn::sysinfo {
namespace {

// Two threads that find it 0 ask the same question twice.
constinit std::atomic<uint32_t> online_cpus{0};

} // namespace
} // namespace vorn::sysinfo

using namespace vorn::sysinfo;

uint32_t vorn_sysinfo_cpu_num() {
  const uint32_t known = online_cpus.load(std::memory_order_relaxed);
  if (known != 0) return known;
  const long count = sysconf(_SC_NPROCESSORS_ONLN);
  if (count < 0)
    return VORN_FAIL(0u, "vorn_sysinfo getting online cpu num failed errno=%d.", errno);
  online_cpus.store(static_cast<uint32_t>(count), std::memory_order_relaxed);
  return static_cast<uint32_t>(count);
}
