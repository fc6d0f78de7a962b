// Answers requests for the time of day, from the system's clock plus a shift and the zone that TZ
// or the system sets.
// SPDX-License-Identifier: Apache-2.0
#include <atomic>
#include <cstdint>
#include <ctime>
#include <pthread.h>

#include "answers.hpp"

namespace vornsim {
namespace {

constinit std::atomic<long> shift{0};

// The C library has a lock on the zone, which a child of fork() could find held. This lock keeps
// threads out of it during a fork().
pthread_mutex_t zone_lock = PTHREAD_MUTEX_INITIALIZER;

void lock_zone() { pthread_mutex_lock(&zone_lock); }
void unlock_zone() { pthread_mutex_unlock(&zone_lock); }

[[gnu::constructor]] void keep_zone_over_fork() {
  pthread_atfork(lock_zone, unlock_zone, unlock_zone);
}

timespec now() {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  time.tv_sec += shift.load(std::memory_order_relaxed);
  return time;
}

// Returns false with errno if the zone does not cover the year of the time.
bool local(time_t utc, tm *fields) {
  lock_zone();
  tzset();
  const bool known = localtime_r(&utc, fields) != nullptr;
  unlock_zone();
  return known;
}

} // namespace

void shift_clock(long seconds) { shift.store(seconds, std::memory_order_relaxed); }

long utc_time(const Arguments &arguments) {
  auto *seconds = pointer<std::int64_t>(arguments[0]);
  auto *nanoseconds = pointer<std::uint32_t>(arguments[1]);
  if (seconds == nullptr || nanoseconds == nullptr) return refuse(EFAULT);
  const timespec time = now();
  *seconds = time.tv_sec;
  *nanoseconds = static_cast<std::uint32_t>(time.tv_nsec);
  return 0;
}

long local_time(const Arguments &arguments) {
  auto *seconds = pointer<std::int64_t>(arguments[0]);
  auto *nanoseconds = pointer<std::uint32_t>(arguments[1]);
  if (seconds == nullptr || nanoseconds == nullptr) return refuse(EFAULT);
  const timespec time = now();
  tm fields{};
  if (!local(time.tv_sec, &fields)) return -1;
  *seconds = time.tv_sec + fields.tm_gmtoff;
  *nanoseconds = static_cast<std::uint32_t>(time.tv_nsec);
  return 0;
}

long local_time_from_utc(const Arguments &arguments) {
  const auto utc = static_cast<std::int64_t>(arguments[0]);
  auto *seconds = pointer<std::int64_t>(arguments[1]);
  if (seconds == nullptr) return refuse(EFAULT);
  tm fields{};
  if (!local(utc, &fields)) return -1;
  *seconds = utc + fields.tm_gmtoff;
  return 0;
}

long dst_from_utc(const Arguments &arguments) {
  auto *dst = pointer<std::int32_t>(arguments[1]);
  if (dst == nullptr) return refuse(EFAULT);
  tm fields{};
  if (!local(static_cast<std::int64_t>(arguments[0]), &fields)) return -1;
  *dst = fields.tm_isdst > 0 ? 1 : 0;
  return 0;
}

long dst_time(const Arguments &arguments) {
  auto *dst = pointer<std::int32_t>(arguments[0]);
  auto *offset = pointer<std::int32_t>(arguments[1]);
  if (dst == nullptr || offset == nullptr) return refuse(EFAULT);
  tm fields{};
  if (!local(now().tv_sec, &fields)) return -1;
  *dst = fields.tm_isdst > 0 ? 1 : 0;
  *offset = static_cast<std::int32_t>(fields.tm_gmtoff);
  return 0;
}

} // namespace vornsim
