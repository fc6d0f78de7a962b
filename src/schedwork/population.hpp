// How many workers there are, in one word, so that no count is ever of one life of the pool and
// another of the next:
//
//    63            32 31            16 15             0
//   +----------------+----------------+----------------+
//   |      life      |     total      |      free      |
//   +----------------+----------------+----------------+
//
// life counts the destroys. total is the workers alive, plus kDestroying while a destroy is under
// way, which leaves no room for new ones; free those of them that are idle or about to be. Every
// change is a compare-and-swap that fails for a worker of an earlier life: such a worker leaves the
// counts alone. All are sequentially consistent: none is on a path where that would show.
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

  // A worker that is about to be started. False: there are enough idle ones, or no more may be.
  bool hire(std::uint32_t life, std::uint32_t minimum) {
    return change(life, [minimum](Counts &now) {
      if (now.free + 1u > minimum || now.total + 1u > VORN_SCHED_WORK_THREAD_COUNT) return false;
      ++now.total;
      ++now.free;
      return true;
    });
  }

  // A worker begins a run, and ends one: false when so many are idle that it is to leave.
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

  // A worker leaves, idle or from a run. False: it was of an earlier life.
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

  // The next life begins without workers. Returns the counts of the one that ended.
  Counts begin_life() {
    Counts before = word_.load();
    while (!word_.compare_exchange_weak(before, Counts{before.life + 1, 0, 0})) {
    }
    return before;
  }

private:
  // false when it is no longer that life, or the change does not want to be.
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
