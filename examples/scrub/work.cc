// Queues a function as scheduled work.
// SPDX-License-Identifier: Apache-2.0
#include "work.hpp"

#include <utility>

#include "vorn_sched.h"

namespace scrub {

Work::Work(std::function<void()> body, unsigned int seconds) : body_(std::move(body)) {
  vorn_sched_init_work(&item_, run, this);
  vorn_set_sched_work_timeout(&item_, seconds);
}

Work::~Work() {
  if (!started_ || vorn_sched_delete_work(&item_) == 0) return;
  while (!done())
    vorn_10msleep(1);
}

// A positive result means that the wake-up failed; the item is queued.
void Work::start() {
  started_ = true;
  if (vorn_sched_add_work(&item_) < 0) run(&item_);
}

// The owner may destroy the item as soon as it is done.
void Work::run(vorn_sched_work_s *item) {
  Work &work = *static_cast<Work *>(item->pData);
  work.body_();
  work.done_.store(true, std::memory_order_release);
}

} // namespace scrub
