// Adds timers to the timer wheel, and moves them through it. One step of the wheel:
//
// 1. Find the next slot with timers by the bits of the slots, and set current_ to its time.
// 2. Place the timers of the slots of higher levels that open at current_ anew, in batches.
// 3. Move the timers of the slot of level 0 to the due ones, and add 1 to current_.
//
// A timer that expires d milliseconds after current_ is placed in the lowest level whose slots
// reach that far. Its slot is opened at a multiple of the slot's width that is later than current_
// and not later than the expiry; the timer is then placed in a lower level. All slots of a level
// together are as wide as one slot of the next level, so a timer is never placed in the slot that
// is being opened, unless it expires in 60 days or later: such a timer stays for another round.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_timer.c"
#include "timer/wheel.hpp"

#include <algorithm>
#include <iterator>

#include "base/log.hpp"
#include "list/vorn_list.hpp"
#include "vorn_bitops.h"

namespace vorn::timer {
namespace {

struct Level {
  unsigned int first; // the level's first slot
  unsigned int slots;
  std::uint64_t width; // the milliseconds of a slot
  std::uint64_t reach() const { return slots * width; }
};

constexpr Level kLevels[] = {
    {0, 1000, 1},           {16 * 64, 60, 1000},      {17 * 64, 60, 60000},
    {18 * 64, 60, 3600000}, {19 * 64, 24, 216000000},
};
constexpr const Level &kTop = kLevels[4];

template <int kLevel> unsigned int slot_in(std::uint64_t time) {
  constexpr Level level = kLevels[kLevel];
  return level.first + static_cast<unsigned int>(time / level.width % level.slots);
}

constexpr std::uint64_t kNever = UINT64_MAX;

// Returns the number of steps from a bit of a ring to the next set bit; 0 if the bit itself is set.
std::uint64_t distance(const unsigned long *bits, unsigned long size, unsigned long from) {
  const unsigned long next = find_next_bit(bits, size, from);
  if (next < size) return next - from;
  const unsigned long before = find_next_bit(bits, from, 0);
  return before < from ? before + size - from : kNever;
}

vorn_timer_s *timer_of(vorn_list_head_s *node) { return vorn_list_entry(node, vorn_timer_s, list); }

void link_tail(vorn_list_head_s *head, vorn_list_head_s *node) {
  node->next = head;
  node->prev = head->prev;
  head->prev->next = node;
  head->prev = node;
}

} // namespace

void Wheel::reset(std::uint64_t now) {
  current_ = now;
  count_ = 0;
  opening_ = false;
  vorn_list_init_head(&cascading_);
  vorn_list_init_head(&due_);
  std::fill(std::begin(occupied_), std::end(occupied_), 0);
  for (vorn_list_head_s &head : heads_)
    vorn_list_init_head(&head);
}

void Wheel::jump(std::uint64_t now) {
  current_ = now;
  opening_ = false;
}

unsigned int Wheel::slot_of(std::uint64_t expiry) const {
  if (expiry <= current_) return slot_in<0>(current_);
  const std::uint64_t ahead = expiry - current_;
  if (ahead < kLevels[0].reach()) return slot_in<0>(expiry);
  if (ahead < kLevels[1].reach()) return slot_in<1>(expiry);
  if (ahead < kLevels[2].reach()) return slot_in<2>(expiry);
  if (ahead < kLevels[3].reach()) return slot_in<3>(expiry);
  return slot_in<4>(ahead > kTop.reach() ? current_ + kTop.reach() : expiry);
}

void Wheel::place(vorn_timer_s *timer) {
  const unsigned int slot = slot_of(timer->expirTime);
  link_tail(&heads_[slot], &timer->list);
  occupied_[slot / 64] |= 1ul << slot % 64;
}

void Wheel::insert(vorn_timer_s *timer, std::uint64_t expiry) {
  timer->expirTime = expiry;
  place(timer);
  ++count_;
}

void Wheel::detach(vorn_timer_s *timer) {
  const vorn_list_head_s *alone_in =
      timer->list.next == timer->list.prev ? timer->list.next : nullptr;
  list::remove(&timer->list, vorn_timer_show, VORN_FILE, "detachTimerFromList");
  if (alone_in >= std::begin(heads_) && alone_in < std::end(heads_)) {
    const auto slot = static_cast<unsigned int>(alone_in - heads_);
    occupied_[slot / 64] &= ~(1ul << slot % 64);
  }
  --count_;
}

void Wheel::remove(vorn_timer_s *timer) {
  detach(timer);
  timer->list.next = nullptr;
}

std::uint64_t Wheel::next_event() const {
  std::uint64_t first = kNever;
  for (const Level &level : kLevels) {
    const std::uint64_t border = (current_ + level.width - 1) / level.width;
    const std::uint64_t steps =
        distance(&occupied_[level.first / 64], level.slots, border % level.slots);
    if (steps != kNever) first = std::min(first, (border + steps) * level.width);
  }
  return first;
}

void Wheel::move_slot(unsigned int slot, vorn_list_head_s *to) {
  vorn_list_head_s *from = &heads_[slot];
  if (vorn_list_is_empty(from)) return;
  from->next->prev = to->prev;
  to->prev->next = from->next;
  from->prev->next = to;
  to->prev = from->prev;
  vorn_list_init_head(from);
  occupied_[slot / 64] &= ~(1ul << slot % 64);
}

void Wheel::collect_cascades() {
  for (const Level &level : kLevels) {
    if (level.first == 0) continue;
    if (current_ % level.width != 0) return;
    move_slot(level.first + static_cast<unsigned int>(current_ / level.width % level.slots),
              &cascading_);
  }
}

// Returns whether all timers have been placed.
bool Wheel::cascade() {
  for (int i = 0; i < kBatch; ++i) {
    vorn_list_head_s *node =
        list::take_first(&cascading_, vorn_timer_show, VORN_FILE, "recalculate_timer_slot");
    if (node == nullptr) return true;
    place(timer_of(node));
  }
  return vorn_list_is_empty(&cascading_) != 0;
}

Wheel::Progress Wheel::advance(std::uint64_t now) {
  if (!vorn_list_is_empty(&due_)) return Progress::kDue;
  if (!opening_) {
    if (is_empty()) {
      jump(now);
      return Progress::kDone;
    }
    if (current_ > now) return Progress::kDone;
    current_ = std::min(next_event(), now + 1);
    if (current_ > now) return Progress::kDone;
    opening_ = true;
    collect_cascades();
  }
  if (!cascade()) return Progress::kMore;
  opening_ = false;
  move_slot(slot_in<0>(current_), &due_);
  ++current_;
  return vorn_list_is_empty(&due_) ? Progress::kMore : Progress::kDue;
}

vorn_timer_s *Wheel::take_due() {
  vorn_list_head_s *node = list::checked_first(&due_, vorn_timer_show, VORN_FILE, "run_timers");
  if (node == nullptr) return nullptr;
  remove(timer_of(node));
  return timer_of(node);
}

bool Wheel::is_head(const vorn_list_head_s *node) const {
  return (node >= std::begin(heads_) && node < std::end(heads_)) || node == &cascading_ ||
         node == &due_;
}

} // namespace vorn::timer
