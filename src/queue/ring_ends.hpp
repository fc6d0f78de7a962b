// Reserves and publishes runs of slots at the two ends of a ring.
//
// Four counters run freely modulo 2^32. In the order in which they pass a slot, from the left:
//
//     producer.head   producer.tail        consumer.head   consumer.tail
//   free |   being filled   |   filled           |   being emptied   |   free
//
//   word            written by                                 load      store
//   head, of one    the one thread of the end                  relaxed   relaxed
//   head, of many   a thread that reserves a run of slots      acquire   compare-and-swap, both
//   tail            the owner of the run that begins there     acquire   release
//   seen            the owner of a run                         relaxed   relaxed
//   a slot          the owner of the run that it is in         plain     plain
//
// seen is the other end's tail, as an owner of a run at this end read it: the other end's line is
// read only if seen shows too few slots, so that it does not move between the caches at each
// operation. A thread that loads seen sees the slots that the other end had published: the owner
// that stored seen had moved head after it read that tail. The thread has acquired that head or a
// later one, or else its compare-and-swap fails.
//
// Why no two threads have a slot at the same time.
// 1. At one end, runs do not overlap: head is moved by a single thread, or by compare-and-swap.
// 2. A producer reserves at most up to consumer.tail + mask, and computes the free slots from head
//    and then from seen or consumer.tail. A value that is older than head can make the difference
//    pass 0 and become greater than mask: the thread then reads consumer.tail. A value that is
//    newer than head can make the difference too great only if head has moved since, and then the
//    compare-and-swap fails. The tail that the thread reads is not older than head: the thread that
//    moved head had read that tail, or acquired the head of a thread that had, and head is loaded
//    with acquire, also by a compare-and-swap that fails. Likewise a consumer reserves up to
//    producer.tail.
// 3. The owner publishes a run by one store of tail, after all accesses to its slots. It makes that
//    store only when tail has reached the beginning of the run. The owner of the previous run
//    stored that value, so the slots of all earlier runs are complete; it was loaded with acquire.
//    So a thread that loads tail with acquire and finds a later run published sees the earlier
//    runs' slots too (the filled slots at the consumer's end, the emptied slots at the producer's).
// 4. Runs of no slots are not reserved. Two runs would begin at the same counter, both owners would
//    proceed to the store of tail, and the second store could set it back.
// 5. seen is stored before the owner's run is published. Until then the two ends can pass less than
//    twice the size of the ring, however long the owner sleeps, so seen never falls so far back
//    that the difference of point 2 wraps to a number of slots that looks right.
//
// Why no full barrier is needed. A full barrier also orders a store before a later load of another
// word. No step of an operation needs that order:
// - The accesses to the slots come after the load of the tail that allowed them (acquire), and
//   before the store of tail (release). The other end touches these slots only after it has loaded
//   that tail with acquire.
// - The store of head precedes the accesses to the slots in the program only. Threads of the other
//   end do not read head; threads of the same end change it only by compare-and-swap. The one
//   thread of an end stores head with tail, so that the line moves to its cache once.
// - An operation ends with the store of tail. The order of that store and of the caller's later
//   loads is the caller's, as it would be if a barrier came before the store. The same holds for
//   the caller's earlier stores: the header says that no operation is a barrier.
//
// ABA. The compare-and-swap on head succeeds wrongly if head has wrapped to the same value between
// a thread's load and its swap. The counters are masked only for the access to a slot, so the
// thread must sleep while exactly 2^32 slots pass, not just a multiple of the ring's size. Indices
// that wrap with the ring would need a tag.
//
// Memory is how the counters are accessed, so that a checker of memory models can take its place.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_QUEUE_RING_ENDS_HPP
#define VORN_QUEUE_RING_ENDS_HPP

#include <algorithm>
#include <cstdint>

namespace vorn::ring {

enum class Threads { kOne, kMany }; // that use an end at the same time
enum class Amount { kAll, kUpTo };  // all of the objects or none

// The slots that an operation owns, by the counter of the first.
struct Run {
  std::uint32_t head;
  std::uint32_t count;
  std::uint32_t available; // slots that could have been reserved
  bool fresh;              // tail was read from the other end
  std::uint32_t tail;      // of the other end
};

template <Amount kAmount> std::uint32_t grant(std::uint32_t wanted, std::uint32_t available) {
  if constexpr (kAmount == Amount::kUpTo) return std::min(wanted, available);
  return wanted <= available ? wanted : 0;
}

// The following functions are inlined into each exported call: a Run that is passed between
// functions goes through memory.

// What an end for one does when it publishes, an end for many does here. Returns false if another
// thread was first; head is then the present value of the counter.
template <class Memory, Threads kThreads, class End>
[[gnu::always_inline]] inline bool advance(End &end, std::uint32_t &head, std::uint32_t count) {
  if constexpr (kThreads == Threads::kOne) return true;
  return Memory::swap(end.head, head, head + count);
}

// Waits until tail is no longer seen, but not longer than until the first yield.
template <class Memory, class Counter>
[[gnu::noinline, gnu::cold]] void wait_for_progress(const Counter &tail, std::uint32_t seen) {
  for (std::uint32_t test = 0; test < Memory::kTestsTillYield; ++test) {
    if (Memory::load(tail) != seen) return;
    Memory::pause();
  }
  Memory::yield();
}

// Prevents a convoy at an end for many. If the owner of a run is descheduled, the owners of later
// runs wait for it, and their CPU is given to it. If each of them reserved the next run at once,
// there would always be an owner that is not running, and every operation would take a change of
// threads. So a thread that finds reserved runs first lets one be published. Returns whether it has
// waited.
template <class Memory, class End>
[[gnu::always_inline]] inline bool lets_owners_go_on(End &end, std::uint32_t head) {
  const std::uint32_t tail = Memory::load(end.tail);
  if (tail == head) return false;
  wait_for_progress<Memory>(end.tail, tail);
  return true;
}

// Reserves slots at one end: count of them, or as many as grant() allows. distance is the largest
// distance of this end's head from the other end's tail.
template <class Memory, Threads kThreads, Amount kAmount, class End>
[[gnu::always_inline]] inline Run reserve(End &end, const End &other, std::uint32_t distance,
                                          std::uint32_t count) {
  std::uint32_t head =
      kThreads == Threads::kOne ? Memory::load_relaxed(end.head) : Memory::load(end.head);
  for (bool waited = kThreads == Threads::kOne;;) {
    std::uint32_t tail = Memory::load_relaxed(end.seen);
    std::uint32_t available = distance + tail - head;
    const bool fresh = available < count || available > end.mask;
    if (fresh) {
      tail = Memory::load(other.tail);
      available = distance + tail - head;
    }
    const std::uint32_t granted = grant<kAmount>(count, available);
    if (granted == 0) return {head, 0, available, fresh, tail};
    if (!waited) {
      waited = true;
      if (lets_owners_go_on<Memory>(end, head)) {
        head = Memory::load(end.head);
        continue;
      }
    }
    if (advance<Memory, kThreads>(end, head, granted))
      return {head, granted, available, fresh, tail};
  }
}

template <class Memory, class Counter>
[[gnu::noinline, gnu::cold]] void wait_for(const Counter &tail, std::uint32_t value) {
  for (;;) {
    for (std::uint32_t test = 0; test < Memory::kTestsTillYield; ++test) {
      if (Memory::load(tail) == value) return;
      Memory::pause();
    }
    Memory::yield();
  }
}

template <class Memory, Threads kThreads, class End>
[[gnu::always_inline]] inline void publish(End &end, const Run &run) {
  const std::uint32_t next = run.head + run.count;
  if constexpr (kThreads == Threads::kOne) {
    Memory::store_relaxed(end.head, next);
    Memory::store_relaxed(end.seen, run.tail);
  } else {
    if (run.fresh) Memory::store_relaxed(end.seen, run.tail);
    if (Memory::load(end.tail) != run.head) wait_for<Memory>(end.tail, run.head);
  }
  Memory::store(end.tail, next);
}

} // namespace vorn::ring

#endif
