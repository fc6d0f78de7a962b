// Returns the time of day, local time and daylight-saving time of the kernel module, or else of the
// system.
// SPDX-License-Identifier: Apache-2.0
#include "time/vorn_time_local.hpp"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "base/kernel_request.hpp"
#include "base/log.hpp"
#include "base/mutex.hpp"

namespace vorn::time {
namespace {

constinit Mutex zone_mutex;
constinit char zone_name[VORN_TIME_ZONE_NAME_LENGTH + 1] = {};

// Returns true if there is a kernel module; *result is its 32-bit answer. An answer whose low 32
// bits alone are -1 comes from a module, and errno does not apply to it.
template <class... Arguments>
bool ask_module(int *result, unsigned int operation, Arguments... arguments) {
  const long answer = kernel_call(operation, arguments...);
  *result = static_cast<int>(answer);
  return answer != -1 || errno != ENOSYS;
}

timespec system_time() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

bool system_local(const char *function, std::int64_t utc, tm *local) {
  if (local_time(utc, local)) return true;
  return VORN_FAIL_AS(function, false, "localtime_r failed, errno %d.", errno);
}

int null_pointer(const char *function) { return VORN_FAIL_AS(function, -1, "Parameter is null."); }

} // namespace

void copy_zone_name(char (&out)[VORN_TIME_ZONE_NAME_LENGTH + 1]) {
  const MutexGuard hold{zone_mutex};
  std::memcpy(out, zone_name, sizeof out);
}

// A thread may hold the C library's lock of the zone while another thread forks, and the child
// would inherit it as held. The library's own mutex around it makes fork() wait.
void reread_zone() {
  const MutexGuard hold{zone_mutex};
  tzset();
}

bool local_time(time_t time, tm *local) {
  const MutexGuard hold{zone_mutex};
  tzset();
  return localtime_r(&time, local) != nullptr;
}

} // namespace vorn::time

using namespace vorn::time;

int vorn_time_gettime(int64_t *seconds, uint32_t *nanoseconds) {
  if (seconds == nullptr || nanoseconds == nullptr) return null_pointer(__func__);
  int result = 0;
  if (ask_module(&result, VORN_SYSCALL_TIME, seconds, nanoseconds)) return result;
  const timespec now = system_time();
  *seconds = now.tv_sec;
  *nanoseconds = static_cast<uint32_t>(now.tv_nsec);
  return 0;
}

int vorn_time_getlocaltime(int64_t *seconds, uint32_t *nanoseconds) {
  if (seconds == nullptr || nanoseconds == nullptr) return null_pointer(__func__);
  int result = 0;
  if (ask_module(&result, VORN_SYSCALL_LOCAL_TIME, seconds, nanoseconds)) return result;
  const timespec now = system_time();
  tm local{};
  if (!system_local(__func__, now.tv_sec, &local)) return -1;
  *seconds = now.tv_sec + local.tm_gmtoff;
  *nanoseconds = static_cast<uint32_t>(now.tv_nsec);
  return 0;
}

int vorn_time_getlocal_fromutc(int64_t utc, int64_t *local) {
  if (local == nullptr) return null_pointer(__func__);
  int result = 0;
  if (ask_module(&result, VORN_SYSCALL_LOCAL_TIME_FROM_UTC, utc, local)) {
    return result;
  }
  tm fields{};
  if (!system_local(__func__, utc, &fields)) return -1;
  *local = utc + fields.tm_gmtoff;
  return 0;
}

int vorn_time_getdst_fromutc(int64_t utc, int32_t *dst) {
  if (dst == nullptr) return null_pointer(__func__);
  int result = 0;
  if (ask_module(&result, VORN_SYSCALL_DST_FROM_UTC, utc, dst)) return result;
  tm fields{};
  if (!system_local(__func__, utc, &fields)) return -1;
  *dst = fields.tm_isdst > 0 ? 1 : 0;
  return 0;
}

int vorn_time_getdsttime(int32_t *dst, int32_t *offset) {
  if (dst == nullptr || offset == nullptr) return null_pointer(__func__);
  int result = 0;
  if (ask_module(&result, VORN_SYSCALL_DST_TIME, dst, offset)) return result;
  tm fields{};
  if (!system_local(__func__, system_time().tv_sec, &fields)) return -1;
  *dst = fields.tm_isdst > 0 ? 1 : 0;
  *offset = static_cast<int32_t>(fields.tm_gmtoff);
  return 0;
}

int vorn_time_zone_name_set(const char *name, unsigned int length) {
  if (name == nullptr) return null_pointer(__func__);
  if (length > VORN_TIME_ZONE_NAME_LENGTH)
    return VORN_FAIL(-1, "Zone name of %u characters is too long.", length);
  const vorn::MutexGuard hold{zone_mutex};
  std::memcpy(zone_name, name, length);
  zone_name[length] = '\0';
  return 0;
}
