// Holds the version of a process: the time of the first request for it.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_process.h"

#include <cerrno>
#include <ctime>

#include "base/log.hpp"
#include "base/once.hpp"
#include "base/timespec.hpp"

namespace vorn::process {
namespace {

constinit Once version_taken{OncePolicy::kLatch};
constinit uint64_t version = 0;

int take_version() {
  timespec now{};
  const int result = clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  if (result != 0) {
    VORN_LOG_AS("ps_get_version", kInfo, "Clock_gettime fail ret:%d errno:%d", result, errno);
    return result;
  }
  version = nanoseconds(now);
  return 0;
}

} // namespace
} // namespace vorn::process

using namespace vorn::process;

uint64_t ps_get_version() {
  version_taken.run(take_version);
  return version;
}
