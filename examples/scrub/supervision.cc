// Checks scheduled work by a timer, and runs the stall drill.
// SPDX-License-Identifier: Apache-2.0
#include "supervision.hpp"

#include <stdexcept>

#include "interrupt.hpp"
#include "thread_table.hpp"
#include "timer_table.hpp"
#include "vorn_sched.h"

namespace scrub {
namespace {

constexpr std::uint64_t kInterval = 1000; // milliseconds
// The library logs an overrun at each check.
constexpr std::uint64_t kIntervalOfOverrun = 60'000;

} // namespace

Supervision::Supervision(Progress &progress, CpuUsage &cpus, bool stall)
    : progress_(progress), cpus_(cpus), stall_(stall), stalled_([this] {
        while (!noticed_)
          vorn_10msleep(1);
      }) {
  vorn_timer_set(&timer_, kInterval, reinterpret_cast<std::uint64_t>(this), expired);
  if (vorn_timer_add(&timer_) != 0)
    throw std::runtime_error("no timer can be armed, the log says why");
  if (stall_) stalled_.start();
}

// After an interrupt, this ends the stalled item at once.
Supervision::~Supervision() {
  vorn_timer_delete_sync(&timer_);
  noticed_ = true;
}

void Supervision::finish() {
  while (stall_ && !noticed_ && !interrupted())
    vorn_10msleep(1);
  vorn_timer_delete_sync(&timer_);
}

void Supervision::expired(std::uint64_t self) {
  auto &supervision = *reinterpret_cast<Supervision *>(self);
  timer_table().note("checks of scheduled work", supervision.timer_);
  const std::uint64_t interval = supervision.check();
  vorn_timer_modify(&supervision.timer_, interval);
}

// Returns the milliseconds until the next check.
std::uint64_t Supervision::check() {
  cpus_.sample();
  thread_table().sample();
  const bool overran = vorn_sched_work_timeout_theck() != 0;
  if (overran)
    progress_.warn("OVERRUN     scheduled work is beyond its time limit: the log names the thread");
  const bool stands_still = vorn_is_all_work_timeout() != 0;
  if (stands_still)
    progress_.warn("STANDSTILL  all threads of scheduled work hang: the log names some of them");
  if (overran) noticed_ = true;
  return overran || stands_still ? kIntervalOfOverrun : kInterval;
}

} // namespace scrub
