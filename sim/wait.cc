// Answers the request to wait on a word, with futex(2).
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdint>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "answers.hpp"

namespace vornsim {
namespace {

constexpr std::int64_t kTicksPerSecond = 250;
constexpr std::int64_t kNanosecondsPerTick = 4000000;
constexpr std::int64_t kNanosecondsPerSecond = 1000000000;

timespec now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time;
}

timespec after(std::int64_t ticks) {
  timespec time = now();
  time.tv_sec += ticks / kTicksPerSecond;
  time.tv_nsec += ticks % kTicksPerSecond * kNanosecondsPerTick;
  if (time.tv_nsec < kNanosecondsPerSecond) return time;
  time.tv_nsec -= kNanosecondsPerSecond;
  ++time.tv_sec;
  return time;
}

// Rounds up to at least 1, which means that the wait was ended before its time ran out.
unsigned long ticks_until(const timespec &deadline) {
  const timespec time = now();
  std::int64_t seconds = deadline.tv_sec - time.tv_sec;
  std::int64_t nanoseconds = deadline.tv_nsec - time.tv_nsec;
  if (nanoseconds < 0) { // first, because adding to the ticks of an endless wait would overflow
    nanoseconds += kNanosecondsPerSecond;
    --seconds;
  }
  const std::int64_t ticks =
      seconds * kTicksPerSecond + (nanoseconds + kNanosecondsPerTick - 1) / kNanosecondsPerTick;
  return ticks > 0 ? static_cast<unsigned long>(ticks) : 1;
}

} // namespace

// The kernel compares the word before it puts the thread to sleep, and a pending signal keeps the
// thread from sleeping: a waker that makes the word 0 and then sends a signal is never missed.
long wait_for_word(const Arguments &arguments) {
  auto *word = pointer<std::uint32_t>(arguments[0]);
  const auto *ticks = pointer<const std::int64_t>(arguments[1]);
  auto *left = pointer<unsigned long>(arguments[2]);
  if (word == nullptr || ticks == nullptr || left == nullptr) return refuse(EFAULT);
  if (arguments[0] % sizeof *word != 0) return refuse(EINVAL);
  const timespec deadline = after(*ticks);
  const std::atomic_ref<std::uint32_t> shared(*word);
  while (const std::uint32_t value = shared.load(std::memory_order_acquire)) {
    const long result = syscall(SYS_futex, word, FUTEX_WAIT_BITSET_PRIVATE, value, &deadline,
                                nullptr, FUTEX_BITSET_MATCH_ANY);
    if (result == 0 || errno == EAGAIN) continue;
    if (errno == ETIMEDOUT && shared.load(std::memory_order_acquire) != 0) return 0;
    if (errno == EINTR) break;
    if (errno != ETIMEDOUT) return -1;
  }
  *left = ticks_until(deadline);
  return 1;
}

} // namespace vornsim
