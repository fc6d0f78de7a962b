// Fills buffers with pseudo-random bytes, whose seed is the time: they are predictable.
// SPDX-License-Identifier: Apache-2.0
#include "kram_syscall.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "vorn_time.h"

namespace vorn::kram {
namespace {

// The kernel module may refuse to give the time; the system's clock does not.
unsigned int seed() {
  int64_t seconds = 0;
  uint32_t nanoseconds = 0;
  if (vorn_time_gettime(&seconds, &nanoseconds) != 0) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    seconds = now.tv_sec;
    nanoseconds = static_cast<uint32_t>(now.tv_nsec);
  }
  return static_cast<unsigned int>(seconds) * 1000000007 + nanoseconds;
}

} // namespace
} // namespace vorn::kram

using namespace vorn::kram;

void get_random_bytes(void *buffer, size_t length) {
  if (buffer == nullptr) return;
  unsigned int state = seed();
  auto *at = static_cast<unsigned char *>(buffer);
  while (length != 0) {
    const int value = rand_r(&state);
    const size_t step = std::min(length, sizeof value);
    std::memcpy(at, &value, step);
    at += step;
    length -= step;
  }
}
