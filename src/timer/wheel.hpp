// The wheel: pending timers by the millisecond of their expiry, in five levels of slots.
//
//   level   slots     slot width                  opened
//   0        1000           1 ms                  its timers run
//   1          60           1 s   every 1000 ms   its timers are placed again, at lower levels
//   2          60           1 min every minute    the same
//   3          60           1 h   every hour      the same
//   4          24          60 h   every 60 hours  the same
//
// A bit for each slot tells whether it holds timers. From these bits follows when there is
// something to do next, so that the wheel goes there at once, over any stretch of time without
// timers.
//
// The wheel has no lock: its owner holds one around each call, and each takes little time.
#ifndef VORN_TIMER_WHEEL_HPP
#define VORN_TIMER_WHEEL_HPP

#include <cstdint>

#include "vorn_timer.h"

namespace vorn::timer {

class Wheel {
public:
  // Makes it an empty wheel. now is the millisecond to be opened next.
  void reset(std::uint64_t now);

  bool is_empty() const { return count_ == 0; }
  std::uint64_t current() const { return current_; }

  // Lets the time go to now, while the wheel is empty: so does the owner before it puts the first
  // timer in.
  void jump(std::uint64_t now);

  // For a timer that is not in the wheel. Past the expiry, it is due at once.
  void insert(vorn_timer_s *timer, std::uint64_t expiry);

  // Takes a timer out. Its list.next is not NULL after that: it counts as pending until the caller
  // has inserted it anew or calls the other.
  void detach(vorn_timer_s *timer);
  void remove(vorn_timer_s *timer);

  enum class Progress {
    kDone, // nothing to do until now has passed
    kMore, // to be called again; the lock may be let go before
    kDue,  // take_due has timers
  };
  // Goes towards now by one step, in which no more than kBatch timers are placed anew.
  Progress advance(std::uint64_t now);
  static constexpr int kBatch = 64;

  // The first of the timers that are due, taken out of the wheel; NULL: there is none.
  vorn_timer_s *take_due();

  // The first millisecond, from current() on, at which a slot with timers is to be opened.
  // UINT64_MAX: never.
  std::uint64_t next_event() const;

  // Whether a list's node is no timer's but a head of the wheel.
  bool is_head(const vorn_list_head_s *node) const;

private:
  // Levels begin at a multiple of 64, so that a level from 1 on has a word of bits.
  static constexpr unsigned int kHeads = 20 * 64;

  unsigned int slot_of(std::uint64_t expiry) const;
  void place(vorn_timer_s *timer);
  void move_slot(unsigned int slot, vorn_list_head_s *to);
  void collect_cascades();
  bool cascade();

  std::uint64_t current_ = 0; // the next millisecond to be opened
  std::uint64_t count_ = 0;   // of timers in any of the lists
  bool opening_ = false;      // current_ is being opened: its slots are in cascading_
  vorn_list_head_s cascading_{};
  vorn_list_head_s due_{};
  unsigned long occupied_[kHeads / 64] = {};
  vorn_list_head_s heads_[kHeads] = {};
};

} // namespace vorn::timer

#endif
