// Decides whether a waiting thread polls its word before it sleeps. Polling pays if the unit comes
// within the time that a sleep and its wake-up take, and if the thread that releases it runs on
// another CPU at that time. Each thread learns that from its own waits:
//
//   - A thread sleeps at first. After kFirstDebt short sleeps, it polls.
//   - While units come as it polls, it goes on. If it has polled in vain, it owes twice as many
//     short sleeps as the last time before it polls again, at most kMostDebt: where polling cannot
//     help, on a single CPU for example, it stops almost completely.
//   - After a long sleep, it owes kFirstDebt short sleeps or more.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SEMAPHORE_PATIENCE_HPP
#define VORN_SEMAPHORE_PATIENCE_HPP

#include <algorithm>
#include <cstdint>

namespace vorn::semaphore {

class Patience {
public:
  // The longest time of polling: about that of a sleep and its wake-up.
  static constexpr std::uint64_t kNanoseconds = 20000;

  bool polls() const { return debt_ == 0; }

  void polled(bool in_vain) {
    debt_ = in_vain ? next_debt_ : 0;
    next_debt_ = in_vain ? std::min(2 * next_debt_, kMostDebt) : kFirstDebt;
  }

  void slept(std::uint64_t nanoseconds) {
    if (nanoseconds > kShortSleep) {
      debt_ = std::max(debt_, kFirstDebt);
    } else if (debt_ > 0) {
      --debt_;
    }
  }

private:
  // Contains the wake-up of this thread, and of the thread that releases the unit if that slept
  // too.
  static constexpr std::uint64_t kShortSleep = 50000;
  static constexpr int kFirstDebt = 4;
  static constexpr int kMostDebt = 1024;

  int debt_ = kFirstDebt; // short sleeps before the next polling
  int next_debt_ = kFirstDebt;
};

} // namespace vorn::semaphore

#endif
