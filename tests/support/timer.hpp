// Defines a timer that counts its calls, for the tests of both kinds; they wrap pthread_create.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_TIMER_HPP
#define VORN_TESTS_TIMER_HPP

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/child.hpp"
#include "support/log_capture.hpp"
#include "support/threads.hpp"
#include "vorn_time.h"
#include "vorn_timer.h"

inline std::string g_failing; // the call that fails
inline std::atomic<int> g_threads{0};

extern "C" {
int __real_pthread_create(pthread_t *out, const pthread_attr_t *attributes, void *(*run)(void *),
                          void *argument);
[[gnu::used]] inline int __wrap_pthread_create(pthread_t *out, const pthread_attr_t *attributes,
                                               void *(*run)(void *), void *argument) {
  ++g_threads;
  return g_failing == "thread" ? EAGAIN : __real_pthread_create(out, attributes, run, argument);
}
}

using std::chrono::milliseconds;
using Lines = std::vector<std::string>;

struct Timer : vorn_timer_s {
  explicit Timer(std::function<void()> what = {}, uint64_t timeout = 5)
      : vorn_timer_s{}, run(std::move(what)) {
    vorn_timer_set_raw(this, timeout, reinterpret_cast<uint64_t>(this), fire, "adder", "file", 3);
  }
  explicit Timer(uint64_t timeout) : Timer({}, timeout) {}

  bool is_early() const {
    if ((flags & VORN_TIMER_HR) == 0) return vorn_time_getmillisec() < expirTime;
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - seconds) * 1000000000 + now.tv_nsec < nanoseconds;
  }
  static void fire(uint64_t data) {
    auto *timer = reinterpret_cast<Timer *>(data);
    if (settled && timer->is_early()) ++early;
    const auto what = timer->run; // a copy: the call may free the timer
    ++timer->fired;
    if (what) what();
  }
  static inline std::atomic<int> early{0};
  static inline std::atomic<bool> settled{true}; // false if other threads arm it while it runs
  std::atomic<int> fired{0};
  std::function<void()> run;
};

using Timers = std::vector<std::unique_ptr<Timer>>;

#endif
