// Declares the timer wheel: pending timers by the millisecond of their expiry, in five levels of
// slots.
//
//   level   slots   slot width   opened
//   0        1000         1 ms   at its millisecond: its timers run
//   1          60          1 s   every 1000 ms: its timers are placed again, at lower levels
//   2          60        1 min   every minute: the same
//   3          60          1 h   every hour: the same
//   4          24         60 h   every 60 hours: the same
//
// A bit for each slot tells whether it holds timers. The wheel finds the next slot to open by these
// bits, and so skips any time without timers at once.
//
// The wheel has no lock: its owner holds one around each call. Each call is short.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TIMER_WHEEL_HPP
#define VORN_TIMER_WHEEL_HPP

#include <cstdint>

#include "vorn_timer.h"

namespace vorn::timer {

class Wheel {
public:
  // Empties the wheel. now is the next millisecond to open.
  void reset(std::uint64_t now);

  bool is_empty() const { return count_ == 0; }
  std::uint64_t current() const { return current_; }

  // Moves an empty wheel to now. The owner calls this before it inserts the first timer.
  void jump(std::uint64_t now);

  // Inserts a timer that is not in the wheel. If its expiry has passed, it is due at once.
  void insert(vorn_timer_s *timer, std::uint64_t expiry);

  // Remove a timer. The first leaves its list.next set: the timer counts as pending until the
  // caller inserts it again or calls the second.
  void detach(vorn_timer_s *timer);
  void remove(vorn_timer_s *timer);

  enum class Progress {
    kDone, // nothing to do until now has passed
    kMore, // call again; the caller may release the lock before
    kDue,  // take_due has timers
  };
  // Advances towards now by one step, which places at most kBatch timers anew.
  Progress advance(std::uint64_t now);
  static constexpr int kBatch = 64;

  // Removes and returns the first due timer, or returns NULL.
  vorn_timer_s *take_due();

  // Returns the first millisecond, from current() on, at which a slot with timers is opened;
  // UINT64_MAX if there is none.
  std::uint64_t next_event() const;

  // Returns whether a node is a list head of the wheel and not a timer's.
  bool is_head(const vorn_list_head_s *node) const;

private:
  // Levels begin at multiples of 64, so that each level from 1 on has its bits in one word.
  static constexpr unsigned int kHeads = 20 * 64;

  unsigned int slot_of(std::uint64_t expiry) const;
  void place(vorn_timer_s *timer);
  void move_slot(unsigned int slot, vorn_list_head_s *to);
  void collect_cascades();
  bool cascade();

  std::uint64_t current_ = 0; // the next millisecond to open
  std::uint64_t count_ = 0;   // the timers in all lists
  bool opening_ = false;      // true while current_ is being opened; its slots are in cascading_
  vorn_list_head_s cascading_{};
  vorn_list_head_s due_{};
  unsigned long occupied_[kHeads / 64] = {};
  vorn_list_head_s heads_[kHeads] = {};
};

} // namespace vorn::timer

#endif
