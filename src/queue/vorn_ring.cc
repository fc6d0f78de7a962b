// Implements the ring: one block of memory with a header of four lines of 128 bytes, then the
// slots.
//
//     0  flags
//   128  watermark | producer: single, size, mask, head, tail, seen
//   256              consumer: single, size, mask, head, tail, seen
//   384  size, mask, 0, 0
//   512  slot 0, slot 1, ... slot mask
//
// Four counters run freely modulo 2^32. In the order in which they pass a slot, from the left:
//
//     producer.head   producer.tail        consumer.head   consumer.tail
//   free |   being filled   |   filled           |   being emptied   |   free
//
//   word            written by                                 order
//   head, of one    the one thread of the end                  store release
//   head, of many   a thread that reserves a run of slots      compare-and-swap, acquire release
//   tail            the owner of the run that begins there     store release
//   a slot          the owner of the run that it is in         plain
//   seen            a thread of the same end                   store release
//   all others      vorn_ring_create
//
// Every counter is loaded with acquire.
//
// seen is the other end's tail, as a thread of this end last read it: the other end's line is read
// only if seen shows too few slots, so that it does not move between the caches at each operation.
// A thread that loads seen with acquire also sees what the thread that stored it saw: the slots
// that the other end had published.
//
// Why no two threads have a slot at the same time.
// 1. At one end, runs do not overlap: head is moved by a single thread, or by compare-and-swap.
// 2. A producer reserves at most up to consumer.tail + mask, and computes the free slots from head
//    and then from seen or consumer.tail. A value that is older than head can make the difference
//    pass 0 and become greater than mask: the thread then reads consumer.tail. A value that is
//    newer than head can make the difference too great only if head has moved since, and then the
//    compare-and-swap fails. Likewise a consumer reserves up to producer.tail.
// 3. The owner publishes a run by one store of tail, after all accesses to its slots. It makes that
//    store only when tail has reached the beginning of the run. The owner of the previous run
//    stored that value, so the slots of all earlier runs are complete; it was loaded with acquire.
//    So a thread that loads tail with acquire and finds a later run published sees the earlier
//    runs' slots too (the filled slots at the consumer's end, the emptied slots at the producer's).
// 4. Runs of no slots are not reserved. Two runs would begin at the same counter, both owners would
//    proceed to the store of tail, and the second store could set it back.
//
// Why no full barrier is needed. A full barrier also orders a store before a later load of another
// word. No step of an operation needs that order:
// - The accesses to the slots come after the loads of head and of the tail that allowed them
//   (acquire), and before the store of tail (release). The other end touches these slots only after
//   it has loaded that tail with acquire.
// - The store of head precedes the accesses to the slots in the program only. Threads of the other
//   end do not read head; threads of the same end change it only by compare-and-swap.
// - An operation ends with the store of tail. The order of that store and of the caller's later
//   loads is the caller's, as it would be if a barrier came before the store.
//
// ABA. The compare-and-swap on head succeeds wrongly if head has wrapped to the same value between
// a thread's load and its swap. The counters are masked only for the access to a slot, so the
// thread must sleep while exactly 2^32 slots pass, not just a multiple of the ring's size. Indices
// that wrap with the ring would need a tag.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ring.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "arch/pause.hpp"
#include "base/atomic_word.hpp"
#include "base/log.hpp"
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

using Counter = volatile std::uint32_t;

constexpr std::uint32_t kNoRing = 0xFFFFFFFF; // the result of a query; of an operation, -1

// An owner that runs publishes within a microsecond or two, unless its run has thousands of slots.
// One that does not by then has probably been descheduled, and the waiter may be on its CPU.
constexpr std::uint32_t kTestsTillYield = 128;

enum class Threads { kOne, kMany }; // that use an end at the same time
enum class Amount { kAll, kUpTo };  // all of the objects or none

// The slots that an operation owns, by the counter of the first.
struct Run {
  std::uint32_t head;
  std::uint32_t count;
  std::uint32_t available; // slots that could have been reserved
};

void **slots_of(vorn_ring_s &ring) { return reinterpret_cast<void **>(&ring + 1); }

std::uint32_t load(const Counter &counter) {
  return atomic_word(counter).load(std::memory_order_acquire);
}

void store(Counter &counter, std::uint32_t value) {
  atomic_word(counter).store(value, std::memory_order_release);
}

template <Amount kAmount> std::uint32_t grant(std::uint32_t wanted, std::uint32_t available) {
  if constexpr (kAmount == Amount::kUpTo) return std::min(wanted, available);
  return wanted <= available ? wanted : 0;
}

// The following functions are inlined into each exported call: a Run that is passed between
// functions goes through memory, which takes longer than the barriers.

// Advances the counter. Returns false if another thread was first; expected is then the present
// value of the counter.
template <Threads kThreads> [[gnu::always_inline]] inline bool
advance(Counter &head, std::uint32_t &expected, std::uint32_t next) {
  if constexpr (kThreads == Threads::kOne) {
    store(head, next);
    return true;
  }
  return atomic_word(head).compare_exchange_weak(expected, next, std::memory_order_acq_rel,
                                                 std::memory_order_acquire);
}

std::uint32_t see(vorn_ring_end_s &end, const vorn_ring_end_s &other) {
  const std::uint32_t tail = load(other.tail);
  store(end.seen, tail);
  return tail;
}

// Reserves slots at one end: count of them, or as many as grant() allows. distance is the largest
// distance of this end's head from the other end's tail.
template <Threads kThreads, Amount kAmount>
[[gnu::always_inline]] inline Run reserve(vorn_ring_end_s &end, const vorn_ring_end_s &other,
                                          std::uint32_t distance, std::uint32_t count) {
  std::uint32_t head = load(end.head);
  for (;;) {
    std::uint32_t available = distance + load(end.seen) - head;
    if (available < count || available > end.mask) available = distance + see(end, other) - head;
    const std::uint32_t granted = grant<kAmount>(count, available);
    if (granted == 0) return {head, 0, available};
    if (advance<kThreads>(end.head, head, head + granted)) return {head, granted, available};
  }
}

[[gnu::noinline, gnu::cold]] void wait_for(const Counter &tail, std::uint32_t value) {
  for (;;) {
    for (std::uint32_t test = 0; test < kTestsTillYield; ++test) {
      if (load(tail) == value) return;
      arch::pause();
    }
    vorn_yield();
  }
}

template <Threads kThreads>
[[gnu::always_inline]] inline void publish(vorn_ring_end_s &end, const Run &run) {
  if constexpr (kThreads == Threads::kMany) {
    if (load(end.tail) != run.head) wait_for(end.tail, run.head);
  }
  store(end.tail, run.head + run.count);
}

// from and to do not overlap.
[[gnu::always_inline]] inline void copy(void **__restrict to, void *const *__restrict from,
                                        std::uint32_t count) {
  for (; count >= 4; count -= 4) {
    to[0] = from[0];
    to[1] = from[1];
    to[2] = from[2];
    to[3] = from[3];
    to += 4;
    from += 4;
  }
  if (count > 0) to[0] = from[0];
  if (count > 1) to[1] = from[1];
  if (count > 2) to[2] = from[2];
}

[[gnu::always_inline]] inline void copy_in(vorn_ring_s &ring, const Run &run, void *const *objs) {
  void **slots = slots_of(ring);
  const std::uint32_t index = run.head & ring.producer.mask;
  const std::uint32_t to_end = ring.producer.size - index;
  if (run.count <= to_end) return copy(slots + index, objs, run.count);
  copy(slots + index, objs, to_end);
  copy(slots, objs + to_end, run.count - to_end);
}

[[gnu::always_inline]] inline void copy_out(vorn_ring_s &ring, const Run &run, void **objs) {
  void **slots = slots_of(ring);
  const std::uint32_t index = run.head & ring.consumer.mask;
  const std::uint32_t to_end = ring.consumer.size - index;
  if (run.count <= to_end) return copy(objs, slots + index, run.count);
  copy(objs, slots + index, to_end);
  copy(objs + to_end, slots, run.count - to_end);
}

struct Enqueued {
  std::uint32_t count;
  bool over_quota;
};

[[gnu::always_inline]] inline bool exceeds(const vorn_ring_s &ring, const Run &run,
                                           std::uint32_t available) {
  return ring.producer.mask + 1 - available + run.count > ring.watermark;
}

// seen may show fewer free slots than there are.
[[gnu::always_inline]] inline bool exceeds_quota(vorn_ring_s &ring, const Run &run) {
  if (!exceeds(ring, run, run.available)) return false;
  return exceeds(ring, run, ring.producer.mask + see(ring.producer, ring.consumer) - run.head);
}

// fill copies the objects to the slots of a run.
template <Threads kThreads, Amount kAmount, class Fill>
[[gnu::always_inline]] inline Enqueued enqueue_at(vorn_ring_s &ring, std::uint32_t n, Fill fill) {
  vorn_ring_end_s &end = ring.producer;
  const Run run = reserve<kThreads, kAmount>(end, ring.consumer, end.mask, n);
  if (run.count == 0) return {0, exceeds_quota(ring, run)};
  fill(run);
  const bool over_quota = exceeds_quota(ring, run);
  publish<kThreads>(end, run);
  return {run.count, over_quota};
}

template <Amount kAmount, class Fill>
[[gnu::always_inline]] inline Enqueued enqueue(vorn_ring_s &ring, std::uint32_t n, Fill fill) {
  if (ring.producer.single != 0) return enqueue_at<Threads::kOne, kAmount>(ring, n, fill);
  return enqueue_at<Threads::kMany, kAmount>(ring, n, fill);
}

template <class Fill>
[[gnu::always_inline]] inline int enqueue_all(vorn_ring_s &ring, std::uint32_t n, Fill fill) {
  const Enqueued done = enqueue<Amount::kAll>(ring, n, fill);
  if (done.count != n) return -ENOBUFS;
  return done.over_quota ? -EDQUOT : 0;
}

// drain copies the objects from the slots of a run.
template <Threads kThreads, Amount kAmount, class Drain> [[gnu::always_inline]] inline std::uint32_t
dequeue_at(vorn_ring_s &ring, std::uint32_t n, Drain drain) {
  vorn_ring_end_s &end = ring.consumer;
  const Run run = reserve<kThreads, kAmount>(end, ring.producer, 0, n);
  if (run.count == 0) return 0;
  drain(run);
  publish<kThreads>(end, run);
  return run.count;
}

template <Amount kAmount, class Drain> [[gnu::always_inline]] inline std::uint32_t
dequeue(vorn_ring_s &ring, std::uint32_t n, Drain drain) {
  if (ring.consumer.single != 0) return dequeue_at<Threads::kOne, kAmount>(ring, n, drain);
  return dequeue_at<Threads::kMany, kAmount>(ring, n, drain);
}

template <class Drain>
[[gnu::always_inline]] inline int dequeue_all(vorn_ring_s &ring, std::uint32_t n, Drain drain) {
  return dequeue<Amount::kAll>(ring, n, drain) == n ? 0 : -ENOENT;
}

std::uint32_t used(const vorn_ring_s &ring) {
  return load(ring.producer.tail) - load(ring.consumer.tail);
}

std::uint32_t room(const vorn_ring_s &ring) {
  return (load(ring.consumer.tail) - 1 - load(ring.producer.tail)) & ring.producer.mask;
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
  const Enqueued done =
      enqueue<Amount::kUpTo>(*ring, n, [=](const Run &run) { copy_in(*ring, run, objs); });
  if (done.count == 0) return 0;
  return done.over_quota ? done.count | VORN_RING_QUOTA_EXCEEDED : done.count;
}

int vorn_ring_enqueue_bulk(vorn_ring_s *ring, void *const *objs, uint32_t n) {
  return enqueue_all(*ring, n, [=](const Run &run) { copy_in(*ring, run, objs); });
}

int vorn_ring_enqueue(vorn_ring_s *ring, void *obj) {
  if (ring == nullptr) return static_cast<int>(no_ring(__func__));
  return enqueue_all(
      *ring, 1, [=](const Run &run) { slots_of(*ring)[run.head & ring->producer.mask] = obj; });
}

uint32_t vorn_ring_dequeue_burst(vorn_ring_s *ring, void **objs, uint32_t n) {
  return dequeue<Amount::kUpTo>(*ring, n, [=](const Run &run) { copy_out(*ring, run, objs); });
}

int vorn_ring_dequeue_bulk(vorn_ring_s *ring, void **objs, uint32_t n) {
  return dequeue_all(*ring, n, [=](const Run &run) { copy_out(*ring, run, objs); });
}

int vorn_ring_dequeue(vorn_ring_s *ring, void **obj) {
  if (ring == nullptr) return static_cast<int>(no_ring(__func__));
  return dequeue_all(
      *ring, 1, [=](const Run &run) { *obj = slots_of(*ring)[run.head & ring->consumer.mask]; });
}
