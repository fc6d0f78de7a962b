// Checks how a ring reserves and publishes slots under the C++ memory model: the checker runs the
// threads in many orders, and lets each load return any value that the model allows, old ones too.
// A slot that two threads use without an order between them is a data race, which fails the case.
// SPDX-License-Identifier: Apache-2.0
#include "queue/ring_ends.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include <gtest/gtest.h>
#include <relacy/relacy.hpp>
#undef new // the checker's own, which no code here uses
#undef delete

// It replaces the other forms.
void operator delete(void *memory, std::size_t) noexcept { operator delete(memory); }
void operator delete[](void *memory, std::size_t) noexcept { operator delete[](memory); }

namespace {

using vorn::ring::Amount;
using vorn::ring::Run;
using vorn::ring::Threads;

constexpr unsigned int kMask = 3, kPerProducer = 4, kMost = 2;
constexpr std::uint32_t kStart = -2; // the counters pass 2^32

struct Modelled {
  using Counter = rl::atomic<std::uint32_t>;

  static constexpr std::uint32_t kTestsTillYield = 2;

  static std::uint32_t load(const Counter &counter) { return counter.load(rl::mo_acquire, $); }
  static std::uint32_t load_relaxed(const Counter &counter) {
    return counter.load(rl::mo_relaxed, $);
  }
  static void store(Counter &counter, std::uint32_t value) {
    counter.store(value, rl::mo_release, $);
  }
  static void store_relaxed(Counter &counter, std::uint32_t value) {
    counter.store(value, rl::mo_relaxed, $);
  }
  static bool swap(Counter &counter, std::uint32_t &expected, std::uint32_t value) {
    return counter.compare_exchange_weak(expected, value, rl::mo_acq_rel, $, rl::mo_acquire, $);
  }
  static void pause() { yield(); }
  static void yield() { rl::yield(1, $); }
};

struct End {
  std::uint32_t mask = kMask;
  Modelled::Counter head, tail, seen;

  void start() {
    for (Modelled::Counter *counter : {&head, &tail, &seen})
      Modelled::store_relaxed(*counter, kStart);
  }
};

template <Threads kProducers, Threads kConsumers>
constexpr rl::thread_id_t kThreadCount = (kProducers == Threads::kOne ? 1 : 2) +
                                         (kConsumers == Threads::kOne ? 1 : 2);

// Passes objects from the first threads, the producers, to the others.
template <Threads kProducers, Threads kConsumers> struct Passing
    : rl::test_suite<Passing<kProducers, kConsumers>, kThreadCount<kProducers, kConsumers>> {
  static constexpr unsigned int kProducerCount = kProducers == Threads::kOne ? 1 : 2;
  static constexpr unsigned int kConsumerCount = kConsumers == Threads::kOne ? 1 : 2;
  static constexpr unsigned int kObjects = kProducerCount * kPerProducer;

  void before() {
    producer.start();
    consumer.start();
    for (auto &count : taken)
      count($) = 0;
  }

  void thread(unsigned int index) {
    if (index < kProducerCount) return produce(index);
    consume(kObjects / kConsumerCount);
  }

  void produce(unsigned int index) {
    for (unsigned int next = 0; next < kPerProducer;) {
      const Run run = vorn::ring::reserve<Modelled, kProducers, Amount::kUpTo>(
          producer, consumer, kMask, std::min(kMost, kPerProducer - next));
      for (unsigned int i = 0; i < run.count; ++i)
        slots[(run.head + i) & kMask]($) = index * kPerProducer + next++;
      finish<kProducers>(producer, run);
    }
  }

  void consume(unsigned int share) {
    unsigned int next[kProducerCount] = {};
    for (unsigned int left = share; left > 0;) {
      const Run run = vorn::ring::reserve<Modelled, kConsumers, Amount::kUpTo>(
          consumer, producer, 0, std::min(kMost, left));
      for (unsigned int i = 0; i < run.count; ++i) {
        const unsigned int object = slots[(run.head + i) & kMask]($);
        RL_ASSERT(object % kPerProducer >= next[object / kPerProducer]);
        next[object / kPerProducer] = object % kPerProducer + 1;
        taken[object]($) += 1;
      }
      left -= run.count;
      finish<kConsumers>(consumer, run);
    }
  }

  template <Threads kThreads> void finish(End &end, const Run &run) {
    if (run.count == 0) return Modelled::yield();
    vorn::ring::publish<Modelled, kThreads>(end, run);
  }

  void after() {
    for (auto &count : taken)
      RL_ASSERT(count($) == 1);
    const std::uint32_t end = kStart + kObjects;
    RL_ASSERT(Modelled::load(producer.tail) == end && Modelled::load(consumer.tail) == end);
  }

  End producer, consumer;
  rl::var<unsigned int> slots[kMask + 1];
  rl::var<unsigned int> taken[kObjects];
};

template <Threads kProducers, Threads kConsumers> void expect_no_race() {
  rl::test_params parameters;
  parameters.iteration_count = 20000;
  EXPECT_TRUE((rl::simulate<Passing<kProducers, kConsumers>>(parameters)));
}

TEST(RingModel, NoTwoThreadsUseASlotAtTheSameTime) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer does not follow the checker's change of stacks";
#endif
  expect_no_race<Threads::kOne, Threads::kOne>();
  expect_no_race<Threads::kMany, Threads::kOne>();
  expect_no_race<Threads::kOne, Threads::kMany>();
  expect_no_race<Threads::kMany, Threads::kMany>();
}

} // namespace
