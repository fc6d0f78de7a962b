// Implements the ring: one block of memory with a header of four lines of 128 bytes, then the
// slots.
//
//     0  flags
//   128  watermark | producer: single, size, mask, head, tail, seen
//   256              consumer: single, size, mask, head, tail, seen
//   384  size, mask, 0, 0
//   512  slot 0, slot 1, ... slot mask
//
// ring_ends.hpp argues why no two threads have a slot at the same time.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ring.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/log.hpp"
#include "queue/ring_ends.hpp"
#include "vorn_sched.h"

static_assert(offsetof(vorn_ring_s, flags) == 0);

static_assert(offsetof(vorn_ring_s, watermark) == 128);
static_assert(offsetof(vorn_ring_s, producer.single) == 132);
static_assert(offsetof(vorn_ring_s, producer.size) == 136);
static_assert(offsetof(vorn_ring_s, producer.mask) == 140);
static_assert(offsetof(vorn_ring_s, producer.head) == 144);
static_assert(offsetof(vorn_ring_s, producer.tail) == 148);
static_assert(offsetof(vorn_ring_s, producer.seen) == 152);

static_assert(offsetof(vorn_ring_s, consumer.single) == 256);
static_assert(offsetof(vorn_ring_s, consumer.size) == 260);
static_assert(offsetof(vorn_ring_s, consumer.mask) == 264);
static_assert(offsetof(vorn_ring_s, consumer.head) == 268);
static_assert(offsetof(vorn_ring_s, consumer.tail) == 272);
static_assert(offsetof(vorn_ring_s, consumer.seen) == 276);

static_assert(offsetof(vorn_ring_s, spare_size) == 384);
static_assert(offsetof(vorn_ring_s, spare_mask) == 388);
static_assert(offsetof(vorn_ring_s, spare) == 392);

static_assert(sizeof(vorn_ring_s) == 512 && alignof(vorn_ring_s) == 128);
static_assert(sizeof(void *) == 8 && sizeof(std::uint32_t) == 4);

namespace vorn::ring {
namespace {

constexpr std::uint32_t kNoRing = 0xFFFFFFFF; // the result of a query; of an operation, -1

struct Shared {
  using Counter = volatile std::uint32_t;

  // An owner that runs publishes within a microsecond or two, unless its run has thousands of
  // slots. One that does not by then has probably been descheduled, and the waiter may be on its
  // CPU.
  static constexpr std::uint32_t kTestsTillYield = 5 * arch::kPausesPerMicrosecond;

  static std::uint32_t load(const Counter &counter) {
    return atomic_word(counter).load(std::memory_order_acquire);
  }
  static std::uint32_t load_relaxed(const Counter &counter) {
    return atomic_word(counter).load(std::memory_order_relaxed);
  }
  static void store(Counter &counter, std::uint32_t value) {
    atomic_word(counter).store(value, std::memory_order_release);
  }
  static void store_relaxed(Counter &counter, std::uint32_t value) {
    atomic_word(counter).store(value, std::memory_order_relaxed);
  }
  static bool swap(Counter &counter, std::uint32_t &expected, std::uint32_t value) {
    return atomic_word(counter).compare_exchange_weak(expected, value, std::memory_order_acq_rel,
                                                      std::memory_order_acquire);
  }
  static void pause() { arch::pause(); }
  static void yield() { vorn_yield(); }
};

void **slots_of(vorn_ring_s &ring) { return reinterpret_cast<void **>(&ring + 1); }

// memcpy(3) moves four objects at a time or more, and the rest one by one or two by two.
void copy(void **to, void *const *from, std::uint32_t count) {
  std::memcpy(to, from, count * sizeof *to);
}

// A run that passes the end of the slots continues at the first slot.
[[gnu::noinline, gnu::cold]] void copy_in_wrapped(void **slots, std::uint32_t index,
                                                  std::uint32_t to_end, void *const *objs,
                                                  std::uint32_t count) {
  copy(slots + index, objs, to_end);
  copy(slots, objs + to_end, count - to_end);
}

[[gnu::noinline, gnu::cold]] void copy_out_wrapped(void *const *slots, std::uint32_t index,
                                                   std::uint32_t to_end, void **objs,
                                                   std::uint32_t count) {
  copy(objs, slots + index, to_end);
  copy(objs + to_end, slots, count - to_end);
}

[[gnu::always_inline]] inline void copy_in(vorn_ring_s &ring, const Run &run, void *const *objs) {
  const std::uint32_t index = run.head & ring.producer.mask;
  const std::uint32_t to_end = ring.producer.size - index;
  if (run.count > to_end) return copy_in_wrapped(slots_of(ring), index, to_end, objs, run.count);
  copy(slots_of(ring) + index, objs, run.count);
}

[[gnu::always_inline]] inline void copy_out(vorn_ring_s &ring, const Run &run, void **objs) {
  const std::uint32_t index = run.head & ring.consumer.mask;
  const std::uint32_t to_end = ring.consumer.size - index;
  if (run.count > to_end) return copy_out_wrapped(slots_of(ring), index, to_end, objs, run.count);
  copy(objs, slots_of(ring) + index, run.count);
}

[[gnu::always_inline]] inline bool exceeds(const vorn_ring_s &ring, const Run &run,
                                           std::uint32_t available) {
  return ring.producer.size - available + run.count > ring.watermark;
}

// seen may show fewer free slots than there are. An enqueue of no objects may have an old head,
// from which there seem to be more than the ring has.
[[gnu::always_inline]] inline bool exceeds_quota(const vorn_ring_s &ring, const Run &run) {
  if (!exceeds(ring, run, run.available)) return false;
  const std::uint32_t available = ring.producer.mask + Shared::load(ring.consumer.tail) - run.head;
  return available <= ring.producer.mask && exceeds(ring, run, available);
}

template <Amount kAmount>
int refused_enqueue(const vorn_ring_s &ring, const Run &run, std::uint32_t n) {
  if constexpr (kAmount == Amount::kUpTo) return 0;
  if (n != 0) return -ENOBUFS;
  return exceeds_quota(ring, run) ? -EDQUOT : 0;
}

// fill copies the objects to the slots of a run.
template <Threads kThreads, Amount kAmount, class Fill>
[[gnu::always_inline]] inline int enqueue(vorn_ring_s &ring, std::uint32_t n, Fill fill) {
  vorn_ring_end_s &end = ring.producer;
  const Run run = reserve<Shared, kThreads, kAmount>(end, ring.consumer, end.mask, n);
  if (run.count == 0) return refused_enqueue<kAmount>(ring, run, n);
  fill(run);
  const bool over_quota = exceeds_quota(ring, run);
  publish<Shared, kThreads>(end, run);
  if constexpr (kAmount == Amount::kAll) return over_quota ? -EDQUOT : 0;
  return static_cast<int>(over_quota ? run.count | VORN_RING_QUOTA_EXCEEDED : run.count);
}

// drain copies the objects from the slots of a run.
template <Threads kThreads, Amount kAmount, class Drain>
[[gnu::always_inline]] inline int dequeue(vorn_ring_s &ring, std::uint32_t n, Drain drain) {
  vorn_ring_end_s &end = ring.consumer;
  const Run run = reserve<Shared, kThreads, kAmount>(end, ring.producer, 0, n);
  if (run.count == 0) return kAmount == Amount::kAll && n != 0 ? -ENOENT : 0;
  drain(run);
  publish<Shared, kThreads>(end, run);
  return kAmount == Amount::kAll ? 0 : static_cast<int>(run.count);
}

template <Threads kThreads>
[[gnu::always_inline]] inline int enqueue_one(vorn_ring_s *ring, void *obj) {
  return enqueue<kThreads, Amount::kAll>(
      *ring, 1, [=](const Run &run) __attribute__((always_inline)) {
        slots_of(*ring)[run.head & ring->producer.mask] = obj;
      });
}

template <Threads kThreads>
[[gnu::always_inline]] inline int dequeue_one(vorn_ring_s *ring, void **obj) {
  return dequeue<kThreads, Amount::kAll>(
      *ring, 1, [=](const Run &run) __attribute__((always_inline)) {
        *obj = slots_of(*ring)[run.head & ring->consumer.mask];
      });
}

template <Threads kThreads, Amount kAmount> [[gnu::always_inline]] inline int
enqueue_run(vorn_ring_s *ring, void *const *objs, std::uint32_t n) {
  return enqueue<kThreads, kAmount>(
      *ring, n, [=](const Run &run) __attribute__((always_inline)) { copy_in(*ring, run, objs); });
}

template <Threads kThreads, Amount kAmount>
[[gnu::always_inline]] inline int dequeue_run(vorn_ring_s *ring, void **objs, std::uint32_t n) {
  return dequeue<kThreads, kAmount>(
      *ring, n, [=](const Run &run) __attribute__((always_inline)) { copy_out(*ring, run, objs); });
}

// The operations on an end for many need more registers than those on an end for one. Functions of
// their own keep the latter from saving these registers.

[[gnu::noinline]] int enqueue_one_of_many(vorn_ring_s *ring, void *obj) {
  return enqueue_one<Threads::kMany>(ring, obj);
}

[[gnu::noinline]] int dequeue_one_of_many(vorn_ring_s *ring, void **obj) {
  return dequeue_one<Threads::kMany>(ring, obj);
}

template <Amount kAmount>
[[gnu::noinline]] int enqueue_of_many(vorn_ring_s *ring, void *const *objs, std::uint32_t n) {
  return enqueue_run<Threads::kMany, kAmount>(ring, objs, n);
}

template <Amount kAmount>
[[gnu::noinline]] int dequeue_of_many(vorn_ring_s *ring, void **objs, std::uint32_t n) {
  return dequeue_run<Threads::kMany, kAmount>(ring, objs, n);
}

template <Amount kAmount> [[gnu::always_inline]] inline int
enqueue_by_end(vorn_ring_s *ring, void *const *objs, std::uint32_t n) {
  if (ring->producer.single == 0) return enqueue_of_many<kAmount>(ring, objs, n);
  return enqueue_run<Threads::kOne, kAmount>(ring, objs, n);
}

template <Amount kAmount>
[[gnu::always_inline]] inline int dequeue_by_end(vorn_ring_s *ring, void **objs, std::uint32_t n) {
  if (ring->consumer.single == 0) return dequeue_of_many<kAmount>(ring, objs, n);
  return dequeue_run<Threads::kOne, kAmount>(ring, objs, n);
}

std::uint32_t used(const vorn_ring_s &ring) {
  return Shared::load(ring.producer.tail) - Shared::load(ring.consumer.tail);
}

std::uint32_t room(const vorn_ring_s &ring) {
  return (Shared::load(ring.consumer.tail) - 1 - Shared::load(ring.producer.tail)) &
         ring.producer.mask;
}

// Not inline: an operation then needs no room for the message on its stack.
[[gnu::noinline, gnu::cold]] std::uint32_t no_ring(const char *function) {
  return VORN_FAIL_AS(function, kNoRing, "Vorn ring id is NULL.");
}

bool is_valid(std::uint32_t count) {
  return count != 0 && (count & (count - 1)) == 0 && count < VORN_RING_MAX_COUNT;
}

void init(vorn_ring_s &ring, std::uint32_t count, std::uint32_t flags) {
  std::memset(static_cast<void *>(&ring), 0, sizeof ring);
  const std::uint32_t mask = count - 1;
  ring.flags =
      flags == VORN_RING_SINGLE ? VORN_RING_SINGLE_PRODUCER | VORN_RING_SINGLE_CONSUMER : flags;
  ring.watermark = count;
  ring.producer = {ring.flags & VORN_RING_SINGLE_PRODUCER, count, mask, 0, 0, 0};
  ring.consumer = {ring.flags & VORN_RING_SINGLE_CONSUMER, count, mask, 0, 0, 0};
  ring.spare_size = count;
  ring.spare_mask = mask;
}

} // namespace
} // namespace vorn::ring

using namespace vorn::ring;

vorn_ring_s *vorn_ring_create(uint32_t count, uint32_t flags) {
  vorn_ring_s *none = nullptr;
  if (!is_valid(count))
    return VORN_FAIL(none, "vorn_ring_create:uiCount must be a power of 2 or great than MAX");
  void *memory;
  const std::size_t bytes = sizeof(vorn_ring_s) + count * sizeof(void *);
  if (posix_memalign(&memory, alignof(vorn_ring_s), bytes) != 0) return nullptr;
  vorn_ring_s *ring = static_cast<vorn_ring_s *>(memory);
  init(*ring, count, flags);
  return ring;
}

void vorn_ring_delete(vorn_ring_s **ring) {
  std::free(*ring);
  *ring = nullptr;
}

uint32_t vorn_ring_full(const vorn_ring_s *ring) {
  if (ring == nullptr) return no_ring(__func__);
  return room(*ring) == 0 ? 1 : 0;
}

uint32_t vorn_ring_empty(const vorn_ring_s *ring) {
  if (ring == nullptr) return no_ring(__func__);
  return used(*ring) == 0 ? 1 : 0;
}

uint32_t vorn_ring_count(const vorn_ring_s *ring) {
  if (ring == nullptr) return no_ring(__func__);
  return used(*ring) & ring->producer.mask;
}

uint32_t vorn_ring_size(const vorn_ring_s *ring) {
  if (ring == nullptr) return no_ring(__func__);
  return ring->producer.mask + 1;
}

uint32_t vorn_ring_free_count(const vorn_ring_s *ring) {
  if (ring == nullptr) return no_ring(__func__);
  return room(*ring);
}

uint32_t vorn_ring_enqueue_burst(vorn_ring_s *ring, void *const *objs, uint32_t n) {
  return static_cast<uint32_t>(enqueue_by_end<Amount::kUpTo>(ring, objs, n));
}

int vorn_ring_enqueue_bulk(vorn_ring_s *ring, void *const *objs, uint32_t n) {
  return enqueue_by_end<Amount::kAll>(ring, objs, n);
}

int vorn_ring_enqueue(vorn_ring_s *ring, void *obj) {
  if (ring == nullptr) return static_cast<int>(no_ring(__func__));
  if (ring->producer.single == 0) return enqueue_one_of_many(ring, obj);
  return enqueue_one<Threads::kOne>(ring, obj);
}

uint32_t vorn_ring_dequeue_burst(vorn_ring_s *ring, void **objs, uint32_t n) {
  return static_cast<uint32_t>(dequeue_by_end<Amount::kUpTo>(ring, objs, n));
}

int vorn_ring_dequeue_bulk(vorn_ring_s *ring, void **objs, uint32_t n) {
  return dequeue_by_end<Amount::kAll>(ring, objs, n);
}

int vorn_ring_dequeue(vorn_ring_s *ring, void **obj) {
  if (ring == nullptr) return static_cast<int>(no_ring(__func__));
  if (ring->consumer.single == 0) return dequeue_one_of_many(ring, obj);
  return dequeue_one<Threads::kOne>(ring, obj);
}
