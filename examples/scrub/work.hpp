// Runs a function once as an item of the library's scheduled work, under a time limit.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_WORK_HPP
#define SCRUB_WORK_HPP

#include <atomic>
#include <functional>

#include "vorn_sched_work.h"

namespace scrub {

class Work {
public:
  // body must not throw. seconds is the time limit.
  explicit Work(std::function<void()> body, unsigned int seconds = VORN_SCHED_WORK_TIMEOUT_MIN);
  Work(const Work &) = delete;
  Work &operator=(const Work &) = delete;
  ~Work(); // takes the item off the queue, or waits until body has returned

  // Runs body in a thread of the pool, or in the caller if the pool refuses the item. Called once.
  void start();
  bool started() const { return started_; }
  bool done() const { return done_.load(std::memory_order_acquire); }

private:
  static void run(vorn_sched_work_s *item);

  const std::function<void()> body_;
  vorn_sched_work_s item_{};
  std::atomic<bool> started_ = false;
  std::atomic<bool> done_ = false;
};

} // namespace scrub

#endif
