// Creates threads.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include <cerrno>
#include <cstring>

#include "base/log.hpp"
#include "thread/vorn_thrd.hpp"

namespace vorn::thread {
namespace {

constinit std::atomic<int> instant_map{0};

int new_thread(vorn_thrd_entry_f entry, void *argument, vorn_thrd_entry_f start_routine,
               pthread_t *out, pthread_attr_t *attributes) {
  if (entry == nullptr) return VORN_FAIL_AS("create_thread_raw_base", -1, "Thread entry is null.");
  return create_thread_raw_base(entry, argument, start_routine, out, attributes);
}

} // namespace

int start_thread(vorn_thread_s *record, vorn_thrd_entry_f start_routine, pthread_t *out,
                 pthread_attr_t *given, const char *function, void (*log_failed)(int error)) {
  pthread_attr_t own;
  pthread_attr_init(&own);
  pthread_attr_t *attributes = given != nullptr ? given : &own;
  int result = pthread_attr_setdetachstate(attributes, PTHREAD_CREATE_DETACHED);
  if (result != 0) {
    VORN_LOG_AS(function, kError, "Set thread detach state failed, ret:%d, errno(%d:%s).", result,
                errno, std::strerror(errno));
  } else {
    result = pthread_create(out, attributes, start_routine, record);
    if (result != 0) log_failed(result);
  }
  pthread_attr_destroy(&own);
  if (result == 0) return 0;
  vorn_thrd_putthreadinfo(record);
  return -1;
}

int set_small_stack(pthread_attr_t *attributes, const char *function, int level) {
  const int result = pthread_attr_setstacksize(attributes, kSmallStack);
  if (result != 0)
    VORN_LOG_AS(function, level, "Set thread stack size failed, ret:%d, errno(%d:%s).", result,
                errno, std::strerror(errno));
  return result;
}

} // namespace vorn::thread

using namespace vorn::thread;

int vorn_thrd_create(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  if (create_thread_from_thread_pool(entry, argument, out) == 0) return 0;
  return create_thread_raw(entry, argument, out);
}

int create_thread_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  return new_thread(entry, argument, start_raw, out, nullptr);
}

int vorn_thread_create_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  return create_thread_raw(entry, argument, out);
}

int create_thread_nopreempt_raw(vorn_thrd_entry_f entry, void *argument, pthread_t *out) {
  if (create_thread_from_thread_pool(entry, argument, out) == 0) return 0;
  if (vorn_get_instant_map_flag() != 1) return create_thread_raw(entry, argument, out);
  // Never destroyed: it holds no resources.
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (set_small_stack(&attributes, __func__, vorn::kError) != 0) return -1;
  return new_thread(entry, argument, start_raw, out, &attributes);
}

int vorn_thrd_create_attr(vorn_thrd_entry_f entry, void *argument, pthread_t *out,
                          pthread_attr_t *attr) {
  return new_thread(entry, argument, start_plain, out, attr);
}

int create_thread_raw_base(vorn_thrd_entry_f entry, void *argument, vorn_thrd_entry_f start_routine,
                           pthread_t *out, pthread_attr_t *attr) {
  if (start_routine == nullptr) return VORN_FAIL(-1, "Thread start routine is null.");
  vorn_thrd_module_init();
  vorn_thread_s *record = take_record(entry, argument);
  if (record == nullptr) {
    VORN_LOG(vorn::kInfo, "Create thread info fail.");
    return -1;
  }
  pthread_t id{};
  const auto log_failed = [](int error) {
    VORN_LOG_AS("create_thread_raw_base", vorn::kError, "Create thread failed, error %d.", error);
  };
  if (start_thread(record, start_routine, &id, attr, __func__, log_failed) != 0) return -1;
  if (out != nullptr) *out = id;
  return 0;
}

int vorn_thrd_attr_init(pthread_attr_t *attr) {
  return attr != nullptr && pthread_attr_init(attr) == 0 ? 0 : -1;
}

int vorn_thrd_attr_destroy(pthread_attr_t *attr) {
  return attr != nullptr && pthread_attr_destroy(attr) == 0 ? 0 : -1;
}

int vorn_thrd_setstacksize(pthread_attr_t *attr, size_t size) {
  return attr != nullptr && pthread_attr_setstacksize(attr, size) == 0 ? 0 : -1;
}

void vorn_set_instant_map_flag() { instant_map = 1; }

int vorn_get_instant_map_flag() { return instant_map; }
