// test-wraps: posix_memalign
#include "vorn_ring.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <random>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "evlog.h"
#include "support/log_capture.hpp"

namespace {

bool no_memory = false;

} // namespace

extern "C" {

int __real_posix_memalign(void **, std::size_t, std::size_t);
int __wrap_posix_memalign(void **memory, std::size_t alignment, std::size_t bytes) {
  return no_memory ? ENOMEM : __real_posix_memalign(memory, alignment, bytes);
}

} // extern "C"

namespace {

struct Delete {
  void operator()(vorn_ring_s *ring) const { vorn_ring_delete(&ring); }
};
using Ring = std::unique_ptr<vorn_ring_s, Delete>;

Ring make_ring(std::uint32_t count, std::uint32_t flags, std::uint32_t counters = 0) {
  Ring ring{vorn_ring_create(count, flags)};
  for (vorn_ring_end_s *end : {&ring->producer, &ring->consumer}) {
    end->head = counters;
    end->tail = counters;
  }
  return ring;
}

void *object(std::uintptr_t number) { return reinterpret_cast<void *>(number); }

std::uint32_t load(const volatile std::uint32_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// The header word by word, as other programs read it.
TEST(Ring, HasTheLayoutThatItsUsersKnow) {
  for (const std::uint32_t flags : {0u, 1u, 2u, 3u, 6u}) {
    const Ring ring = make_ring(16, flags);
    std::vector<std::uint32_t> wanted(128);
    wanted[0] = flags;
    const std::uint32_t producer[] = {16, flags & 1, 16, 15, 0, 0};
    const std::uint32_t consumer[] = {flags & 2, 16, 15, 0, 0};
    std::ranges::copy(producer, &wanted[32]);
    std::ranges::copy(consumer, &wanted[64]);
    std::ranges::copy(std::span(consumer).subspan(1), &wanted[96]);
    EXPECT_EQ(std::memcmp(ring.get(), wanted.data(), 512), 0) << flags;

    EXPECT_EQ(vorn_ring_enqueue(ring.get(), object(77)), 0);
    EXPECT_EQ(*reinterpret_cast<void **>(reinterpret_cast<char *>(ring.get()) + 512), object(77));
  }
}

TEST(Ring, IsMadeOfAPowerOfTwoAndBeginsAtALineOfItsOwn) {
  for (std::uint32_t count = 1; count <= 0x8000; count *= 2) {
    const Ring ring = make_ring(count, 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ring.get()) % 128, 0u);
  }
  for (const std::uint32_t count : {0u, 12u, 0x0FFFFFFFu, 0x10000000u, 0x80000000u}) {
    EXPECT_EQ(vorn_ring_create(count, 0), nullptr) << count;
    EXPECT_ONE_RECORD(EVLOG_ERROR, "vorn_ring.c", "vorn_ring_create",
                      "vorn_ring_create:uiCount must be a power of 2 or great than MAX");
  }
  no_memory = true;
  vorn_ring_s *ring = vorn_ring_create(0x08000000, 0);
  no_memory = false;
  EXPECT_EQ(ring, nullptr);
  vorn_ring_delete(&ring);
  EXPECT_NO_RECORD();
  EXPECT_EQ(vorn_ring_count(nullptr), 0xFFFFFFFF);
  EXPECT_EQ(vorn_ring_enqueue(nullptr, object(1)), -1);
  EXPECT_EQ(capture::take_texts(), std::vector<std::string>(2, "Vorn ring id is NULL."));
}

// As enqueues count it, the slot that stays empty is filled.
TEST(Ring, ReportsTheWatermark) {
  for (const std::uint32_t flags : {0u, 3u}) {
    const Ring ring = make_ring(8, flags, 0xFFFFFFFE);
    ring->watermark = 3;
    void *objects[8] = {};
    EXPECT_EQ(vorn_ring_enqueue_burst(ring.get(), objects, 2), 2u);
    EXPECT_EQ(vorn_ring_enqueue_bulk(ring.get(), objects, 0), 0);
    EXPECT_EQ(vorn_ring_enqueue(ring.get(), objects), -EDQUOT);
    EXPECT_EQ(vorn_ring_enqueue_bulk(ring.get(), objects, 0), -EDQUOT);
    EXPECT_EQ(vorn_ring_enqueue_bulk(ring.get(), objects, 5), -ENOBUFS);
    EXPECT_EQ(vorn_ring_enqueue_bulk(ring.get(), objects, 2), -EDQUOT);
    EXPECT_EQ(vorn_ring_enqueue_burst(ring.get(), objects, 8), 2 | 0x80000000);
    EXPECT_EQ(vorn_ring_enqueue_burst(ring.get(), objects, 8), 0u);
    EXPECT_EQ(vorn_ring_count(ring.get()), 7u);
  }
  EXPECT_NO_RECORD();
}

// The parameter: the flags.
class EachMode : public testing::TestWithParam<std::uint32_t> {};
INSTANTIATE_TEST_SUITE_P(Ring, EachMode, testing::Range(0u, 4u));

// The calls that move objects, for both ends.
enum Call { kOne, kBulk, kBurst };

Call any_call(std::uint32_t random) { return static_cast<Call>(random % 3); }

int put(vorn_ring_s *ring, Call call, void *const *objects, std::uint32_t n) {
  if (call == kOne) return vorn_ring_enqueue(ring, objects[0]);
  if (call == kBulk) return vorn_ring_enqueue_bulk(ring, objects, n);
  return static_cast<int>(vorn_ring_enqueue_burst(ring, objects, n));
}

int take(vorn_ring_s *ring, Call call, void **objects, std::uint32_t n) {
  if (call == kOne) return vorn_ring_dequeue(ring, objects);
  if (call == kBulk) return vorn_ring_dequeue_bulk(ring, objects, n);
  return static_cast<int>(vorn_ring_dequeue_burst(ring, objects, n));
}

// A ring of size slots beside a queue, both used by one thread. Its runs wrap in every way.
void expect_a_queue(std::uint32_t size, std::uint32_t flags, std::uint32_t counters) {
  const Ring ring = make_ring(size, flags, counters);
  std::deque<void *> queue;
  std::mt19937 random{1};
  std::uintptr_t made = 0;
  for (int step = 0; step < 500 && !testing::Test::HasFailure(); ++step) {
    const bool putting = random() % 2 == 0;
    const Call call = any_call(random());
    const std::uint32_t n = call == kOne ? 1 : random() % (size + 3);
    const auto count = static_cast<std::uint32_t>(queue.size());
    const std::uint32_t most = putting ? size - 1 - count : count;
    const std::uint32_t moved = n <= most ? n : call == kBurst ? most : 0;
    const int failure = putting ? -105 : -2;
    const int wanted = call == kBurst ? static_cast<int>(moved) : n <= most ? 0 : failure;
    std::vector<void *> objects(size + 2);
    if (putting) {
      for (void *&fresh : objects)
        fresh = object(++made);
      EXPECT_EQ(put(ring.get(), call, objects.data(), n), wanted);
      queue.insert(queue.end(), objects.begin(), objects.begin() + moved);
    } else {
      EXPECT_EQ(take(ring.get(), call, objects.data(), n), wanted);
      std::vector<void *> front{queue.begin(), queue.begin() + moved};
      front.resize(objects.size()); // nothing else was written
      EXPECT_EQ(objects, front);
      queue.erase(queue.begin(), queue.begin() + moved);
    }
    EXPECT_EQ(vorn_ring_count(ring.get()), queue.size());
    EXPECT_EQ(vorn_ring_free_count(ring.get()), size - 1 - queue.size());
    EXPECT_EQ(vorn_ring_full(ring.get()), queue.size() == size - 1 ? 1u : 0u);
    EXPECT_EQ(vorn_ring_empty(ring.get()), queue.empty() ? 1u : 0u);
  }
}

TEST_P(EachMode, DoesAsAQueueDoes) {
  for (const std::uint32_t size : {1u, 2u, 8u, 16u}) {
    for (const std::uint32_t counters : {0u, 0x7FFFFFF0u, 0xFFFFFFF3u})
      expect_a_queue(size, GetParam(), counters);
  }
  EXPECT_NO_RECORD();
}

// What passes through the ring in the cases with threads: nothing here is atomic, so that the ring
// alone makes the producer's writes visible.
struct Item {
  unsigned int producer = 0;
  unsigned int number = 0; // in the order of its producer
  unsigned int taken = 0;
};

// One thread's end: moves up to so many objects by any of the three calls, and tells how many went.
class Mover {
public:
  Mover(vorn_ring_s *ring, unsigned int seed) : ring_(ring), random_(seed) {}

  template <class Move, class Objects>
  std::uint32_t operator()(Move move, Objects objects, std::uint32_t most) {
    const Call call = any_call(random_());
    const std::uint32_t n = call == kOne ? 1 : 1 + random_() % most;
    const int result = move(ring_, call, objects, n);
    const auto moved = call == kBurst ? static_cast<std::uint32_t>(result) : result == 0 ? n : 0;
    // A thread that is descheduled with a slot reserved makes the next one spin for the rest of its
    // turn, with a slot reserved too: so that they do not go on like that, each yields now and
    // then.
    if (moved == 0 || ++calls_ % 8 == 0) std::this_thread::yield();
    return moved;
  }

private:
  vorn_ring_s *ring_;
  std::mt19937 random_;
  unsigned int calls_ = 0;
};

// Every item is taken once, in the order of its producer. The counters pass 2^32 in the midst.
TEST_P(EachMode, KeepsEveryObjectAndTheOrderOfEachProducer) {
  constexpr std::uint32_t kMost = 7, kPerProducer = 3000;
  for (const std::uint32_t size : {2u, 8u, 64u}) {
    const Ring ring = make_ring(size, GetParam(), -kPerProducer / 2);
    const unsigned int producers = ring->producer.single != 0 ? 1 : 3;
    const unsigned int consumers = ring->consumer.single != 0 ? 1 : 3;
    std::vector<Item> items(producers * kPerProducer);
    std::latch ready{producers + consumers};
    std::atomic<int> left{static_cast<int>(items.size())};
    std::atomic<bool> given_up{false}; // counters may be such that the others would not end

    const auto produce = [&](unsigned int producer) {
      ready.arrive_and_wait();
      Mover mover{ring.get(), producer};
      void *batch[kMost];
      for (std::uint32_t next = 0; next < kPerProducer && !given_up;) {
        const std::uint32_t n = std::min(kMost, kPerProducer - next);
        for (std::uint32_t i = 0; i < n; ++i) {
          Item &item = items[producer * kPerProducer + next + i];
          item = {producer, next + i, 0};
          batch[i] = &item;
        }
        next += mover(put, batch, n);
      }
    };
    const auto consume = [&](unsigned int consumer) {
      ready.arrive_and_wait();
      Mover mover{ring.get(), consumer + 11};
      std::vector<unsigned int> next(producers);
      void *batch[kMost];
      while (left > 0 && !given_up) {
        const std::uint32_t taken = mover(take, batch, kMost);
        for (std::uint32_t i = 0; i < taken && !given_up; ++i) {
          auto *item = static_cast<Item *>(batch[i]);
          given_up = item < items.data() || item > &items.back() ||
                     item->number < next[item->producer] || item->taken++ != 0;
          if (!given_up) next[item->producer] = item->number + 1;
        }
        left -= static_cast<int>(taken);
      }
    };
    {
      std::vector<std::jthread> threads;
      for (unsigned int i = 0; i < producers; ++i)
        threads.emplace_back(produce, i);
      for (unsigned int i = 0; i < consumers; ++i)
        threads.emplace_back(consume, i);
    }
    ASSERT_FALSE(given_up) << size;
    EXPECT_EQ(std::ranges::count(items, 1u, &Item::taken), std::ssize(items));
    const auto end = -kPerProducer / 2 + static_cast<std::uint32_t>(items.size());
    EXPECT_EQ(ring->producer.tail, end);
    EXPECT_EQ(ring->consumer.tail, end);
  }
}

// A thread has reserved a slot and not published it: it was descheduled, say. The parameter:
// whether at the producers' end.
class Stalled : public testing::TestWithParam<bool> {
protected:
  Stalled() {
    EXPECT_EQ(vorn_ring_enqueue(ring_.get(), object(1)), 0);
    EXPECT_EQ(vorn_ring_enqueue(ring_.get(), object(2)), 0);
    end_.head = end_.tail + 1;
  }

  int reserve_behind() {
    void *taken;
    if (GetParam()) return vorn_ring_enqueue(ring_.get(), object(4));
    return vorn_ring_dequeue(ring_.get(), &taken);
  }

  void publish() { __atomic_store_n(&end_.tail, end_.tail + 1, __ATOMIC_RELEASE); }

  Ring ring_ = make_ring(8, 0, 0xFFFFFFFD);
  vorn_ring_end_s &end_ = GetParam() ? ring_->producer : ring_->consumer;
};

INSTANTIATE_TEST_SUITE_P(Ring, Stalled, testing::Bool(),
                         [](const auto &end) { return end.param ? "Producer" : "Consumer"; });

TEST_P(Stalled, IsWaitedForByThoseBehind) {
  EXPECT_EQ(vorn_ring_count(ring_.get()), 2u); // nor is it seen by the queries
  EXPECT_EQ(vorn_ring_free_count(ring_.get()), 5u);
  void *objects[6] = {}; // and what it has not published is not the other end's
  EXPECT_NE(GetParam() ? vorn_ring_dequeue_bulk(ring_.get(), objects, 3)
                       : vorn_ring_enqueue_bulk(ring_.get(), objects, 6),
            0);
  const std::uint32_t tail = end_.tail;
  std::thread behind{[this] { EXPECT_EQ(reserve_behind(), 0); }};
  while (load(end_.head) != tail + 2)
    std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds{2}); // in which it would go on
  EXPECT_EQ(load(end_.tail), tail);
  publish();
  behind.join();
  EXPECT_EQ(load(end_.tail), tail + 2);
}

} // namespace
