// Runs the thread of a timer service, and calls the functions of timers.
// SPDX-License-Identifier: Apache-2.0
#include "timer/service.hpp"

#include <cstring>
#include <sched.h>
#include <sys/prctl.h>

#include "base/cancellation_guard.hpp"
#include "base/fork_gate.hpp"
#include "base/log.hpp"
#include "base/system.hpp"
#include "vorn_affinity.h"
#include "vorn_thrd.h"
#include "vorn_time.h"

namespace vorn::timer {
namespace {

constexpr char kAffinityLevel[] = "affinity_level_1";

constinit std::uint32_t forks = 1; // changed only while the process has one thread
const ForkChild count_fork{[] { ++forks; }};

// Called if a timer's function ends the thread: starts another thread.
void replace(void *argument) {
  const auto &service = *static_cast<const Service *>(argument);
  service.end_call();
  if (start_thread(service) != 0) service.state->store(service.stopped, std::memory_order_release);
}

void *serve(void *argument) {
  const auto &service = *static_cast<const Service *>(argument);
  const CancellationGuard off;
  vorn_thrd_setname("%s", service.name);
  vorn_thrd_setprio(service.priority);
  vorn_setCurThreadStrategy(service.strategy);
  prctl(PR_SET_TIMERSLACK, 1UL); // else the kernel may wake it 50 us late
  pthread_cleanup_push(replace, argument);
  service.run();
  pthread_cleanup_pop(0);
  return nullptr;
}

} // namespace

std::uint32_t fork_count() { return forks; }

int start_thread(const Service &service) {
  pthread_t thread{};
  if (create_thread_nopreempt_raw(serve, const_cast<Service *>(&service), &thread) != 0) {
    VORN_LOG_AT(service.file, __LINE__, service.module, kError, "Create thread failed.");
    return -1;
  }
  if (vorn_set_thread_affinity(thread, kAffinityLevel) != 0)
    VORN_LOG_AT(service.file, __LINE__, service.module, kInfo,
                "set thread affinity failed, tid(%lu), affinity_level(%s).", thread,
                kAffinityLevel);
  return 0;
}

Call::Call(const vorn_timer_s &timer) : timer_(&timer), function_(timer.func), data_(timer.data) {
  const char *name = timer.funcName != nullptr ? timer.funcName : "(null)";
  const std::size_t length = strnlen(name, kNameSize - 1);
  std::memcpy(added_by_, name, length);
  added_by_[length] = '\0';
}

std::uint64_t Call::run() const {
  const std::uint64_t start = vorn_time_getmillisec();
  function_(data_);
  return vorn_time_getmillisec() - start;
}

void Running::begin(vorn_timer_s *timer) {
  timer_ = timer;
  thread_ = pthread_self();
}

void Running::add(Waiter &waiter) {
  waiter.next = waiters_;
  waiters_ = &waiter;
}

// Release: the thread that waited for the end of the function sees the function's writes.
void Running::release_waiters() {
  while (waiters_ != nullptr) {
    Waiter *waiter = waiters_;
    waiters_ = waiter->next;
    waiter->over.store(true, std::memory_order_release);
  }
}

void wait_for(const Running::Waiter &waiter) {
  constexpr int kYields = 20; // most functions are short
  constexpr timespec kPause{0, 100000};
  for (int i = 0; !waiter.over.load(std::memory_order_acquire); ++i) {
    if (i < kYields)
      sched_yield();
    else
      sys::sleep(kPause);
  }
}

} // namespace vorn::timer
