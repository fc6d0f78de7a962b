// Counts the workers in one word, so that all counts are always of the same life of the pool:
//
//    63            32 31            16 15             0
//   +----------------+----------------+----------------+
//   |      life      |     total      |      free      |
//   +----------------+----------------+----------------+
//
// life is the number of destroys. total is the number of workers, plus kDestroying during a
// destroy, which leaves no room for new ones. free is the number of workers that are idle or about
// to be. Each change is a compare-and-swap that fails for a worker of an earlier life: such a
// worker does not change the counts. All are sequentially consistent, since none is on a path where
// the cost matters.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_SCHEDWORK_POPULATION_HPP
#define VORN_SCHEDWORK_POPULATION_HPP

#include <atomic>
#include <cstdint>

#include "vorn_sched_work.h"

namespace vorn::schedwork {

inline constexpr std::uint16_t kDestroying = 1024;

struct alignas(std::uint64_t) Counts { // one word, changed as a whole
  std::uint32_t life;
  std::uint16_t total;
  std::uint16_t free;

  bool destroying() const { return total >= kDestroying; }
};

class Population {
public:
  Counts counts() const { return word_.load(); }

  // Counts a worker that is about to start. Returns false if enough are idle or the limit is
  // reached.
  bool hire(std::uint32_t life, std::uint32_t minimum) {
    return change(life, [minimum](Counts &now) {
      if (now.free + 1u > minimum || now.total + 1u > VORN_SCHED_WORK_THREAD_COUNT) return false;
      ++now.total;
      ++now.free;
      return true;
    });
  }

  // A worker begins a run, and ends one. The second returns false if the worker must leave because
  // enough others are idle.
  bool begin_run(std::uint32_t life) {
    return change(life, [](Counts &now) { return --now.free, true; });
  }
  bool end_run(std::uint32_t life, std::uint32_t maximum) {
    return change(life, [maximum](Counts &now) {
      if (now.free + 1u > maximum) return false;
      ++now.free;
      return true;
    });
  }

  // A worker leaves, idle or after a run. Returns false if it was of an earlier life.
  bool leave(std::uint32_t life, bool idle) {
    return change(life, [idle](Counts &now) {
      --now.total;
      if (idle) --now.free;
      return true;
    });
  }

  void mark_destroying() {
    change(counts().life, [](Counts &now) { return now.total += kDestroying, true; });
  }

  // Begins the next life, without workers. Returns the counts of the old life.
  Counts begin_life() {
    Counts before = word_.load();
    while (!word_.compare_exchange_weak(before, Counts{before.life + 1, 0, 0})) {
    }
    return before;
  }

private:
  // Returns false if that life has ended, or if make refuses the change.
  template <class Change> bool change(std::uint32_t life, Change make) {
    Counts before = word_.load();
    for (;;) {
      if (before.life != life) return false;
      Counts after = before;
      if (!make(after)) return false;
      if (word_.compare_exchange_weak(before, after)) return true;
    }
  }

  std::atomic<Counts> word_{};
  static_assert(std::atomic<Counts>::is_always_lock_free);
};

} // namespace vorn::schedwork

#endif
