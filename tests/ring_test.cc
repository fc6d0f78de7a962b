// test-wraps: posix_memalign
// Tests the ring.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ring.h"

#include <algorithm>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <chrono>
#include <deque>
#include <gtest/gtest.h>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "base/atomic_word.hpp"
#include "evlog.h"
#include "support/log_capture.hpp"

static bool no_memory = false;

extern "C" {
int __real_posix_memalign(void **, std::size_t, std::size_t);
int __wrap_posix_memalign(void **memory, std::size_t alignment, std::size_t bytes) {
  return no_memory ? ENOMEM : __real_posix_memalign(memory, alignment, bytes);
}
}

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
    end->seen = counters;
  }
  return ring;
}

void *object(std::uintptr_t number) { return reinterpret_cast<void *>(number); }

std::uint32_t load(const volatile std::uint32_t &word) { return vorn::atomic_word(word).load(); }

// What other programs read in the header, and where they read the slots.
TEST(Ring, HeaderHasFlagsAndSizesBeforeTheSlots) {
  const std::pair<std::uint32_t, std::uint32_t> rows[] = {{0, 0}, {1, 1}, {2, 2}, {4, 3}, {6, 6}};
  for (const auto &[given, kept] : rows) {
    const Ring ring = make_ring(16, given);
    EXPECT_EQ(ring->flags, kept);
    EXPECT_EQ(ring->producer.single, kept & 1);
    EXPECT_EQ(ring->consumer.single, kept & 2);
    for (const std::uint32_t size :
         {ring->watermark, ring->producer.size, ring->consumer.size, ring->spare_size})
      EXPECT_EQ(size, 16u);
    for (const std::uint32_t mask : {ring->producer.mask, ring->consumer.mask, ring->spare_mask})
      EXPECT_EQ(mask, 15u);
    EXPECT_EQ(vorn_ring_enqueue(ring.get(), object(77)), 0);
    EXPECT_EQ(*reinterpret_cast<void **>(reinterpret_cast<char *>(ring.get()) + 512), object(77));
  }
}

TEST(Ring, CountIsAPowerOfTwoAndTheRingIsAligned) {
  for (std::uint32_t count = 1; count <= 0x8000; count *= 2) {
    const Ring ring = make_ring(count, 0);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ring.get()) % 128, 0u);
  }
  for (const std::uint32_t count : {0u, 12u, 0x0FFFFFFFu, 0x10000000u, 0x80000000u}) {
    EXPECT_EQ(vorn_ring_create(count, 0), nullptr) << count;
    EXPECT_ONE_MESSAGE(EVLOG_ERROR, "vorn_ring.c", "vorn_ring_create",
                       "vorn_ring_create:uiCount must be a power of 2 or great than MAX");
  }
  no_memory = true;
  vorn_ring_s *ring = vorn_ring_create(0x08000000, 0);
  no_memory = false;
  EXPECT_EQ(ring, nullptr);
  vorn_ring_delete(&ring);
  EXPECT_NO_MESSAGE();
  EXPECT_EQ(vorn_ring_count(nullptr), 0xFFFFFFFF);
  EXPECT_EQ(vorn_ring_enqueue(nullptr, object(1)), -1);
  EXPECT_EQ(capture::take_lines(), std::vector<std::string>(2, "E Vorn ring id is NULL."));
}

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

// A ring of size slots beside a queue, both used by one thread. Its runs wrap in every way. As
// enqueues compare with the watermark, the slot that stays empty is filled.
void expect_a_queue(std::uint32_t size, std::uint32_t flags, std::uint32_t counters) {
  const Ring ring = make_ring(size, flags, counters);
  if (size > 8) ring->watermark = 3;
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
    const bool over = putting && count + moved + 1 > ring->watermark;
    const int refused = putting ? -105 : -2;
    const auto burst = static_cast<int>(moved | (over && moved != 0 ? 0x80000000 : 0));
    const int wanted = call == kBurst ? burst : n > most ? refused : over ? -122 : 0;
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

TEST(Ring, AgreesWithAQueue) {
  for (const std::uint32_t flags : {0u, 1u, 2u, 3u}) {
    for (const std::uint32_t size : {1u, 2u, 8u, 16u}) {
      for (const std::uint32_t counters : {0u, 0x7FFFFFF0u, 0xFFFFFFF3u})
        expect_a_queue(size, flags, counters);
    }
  }
  EXPECT_NO_MESSAGE();
}

// What passes through the ring in the case with threads: nothing here is atomic, so that the ring
// alone makes the producer's writes visible.
struct Item {
  unsigned int producer = 0;
  unsigned int number = 0; // in the order of its producer
  unsigned int taken = 0;
};

// The parameter: the flags.
class EachMode : public testing::TestWithParam<std::uint32_t> {
protected:
  static constexpr std::uint32_t kMost = 7, kPerProducer = 3000;

  // Moves at most that many objects by any of the three calls. Returns how many it moved.
  template <class Move, class Objects>
  std::uint32_t move(Move by, Objects objects, std::uint32_t most, std::mt19937 &random) {
    const Call call = any_call(random());
    const std::uint32_t n = call == kOne ? 1 : 1 + random() % most;
    const int result = by(ring_.get(), call, objects, n);
    const auto moved = call == kBurst ? static_cast<std::uint32_t>(result) : result == 0 ? n : 0;
    // A thread that is descheduled with a slot reserved makes the next one spin with a slot
    // reserved too: each yields now and then, to end that.
    if (moved == 0 || random() % 8 == 0) std::this_thread::yield();
    return moved;
  }

  void produce(unsigned int producer) {
    std::mt19937 random{producer};
    void *batch[kMost];
    for (std::uint32_t next = 0; next < kPerProducer && !given_up_;) {
      const std::uint32_t n = std::min(kMost, kPerProducer - next);
      for (std::uint32_t i = 0; i < n; ++i) {
        Item &item = items_[producer * kPerProducer + next + i];
        item = {producer, next + i, 0};
        batch[i] = &item;
      }
      next += move(put, batch, n, random);
    }
  }

  void consume(unsigned int consumer) {
    std::mt19937 random{consumer + 11};
    std::uint32_t next[3] = {};
    void *batch[kMost];
    while (left_ > 0 && !given_up_) {
      const std::uint32_t taken = move(take, batch, kMost, random);
      for (std::uint32_t i = 0; i < taken && !given_up_; ++i) {
        auto *item = static_cast<Item *>(batch[i]);
        given_up_ = item < items_.data() || item > &items_.back() ||
                    item->number < next[item->producer] || item->taken++ != 0;
        if (!given_up_) next[item->producer] = item->number + 1;
      }
      left_ -= static_cast<int>(taken);
    }
  }

  Ring ring_;
  std::vector<Item> items_;
  std::atomic<int> left_;
  std::atomic<bool> given_up_{false}; // counters may be such that the others would not end
};

INSTANTIATE_TEST_SUITE_P(Ring, EachMode, testing::Range(0u, 4u));

// Every item is taken once, in the order of its producer. The counters pass 2^32 during the run.
TEST_P(EachMode, KeepsEveryObjectAndTheOrderOfEachProducer) {
  for (const std::uint32_t size : {2u, 8u, 64u}) {
    ring_ = make_ring(size, GetParam(), -kPerProducer / 2);
    const unsigned int producers = ring_->producer.single != 0 ? 1 : 3;
    const unsigned int consumers = ring_->consumer.single != 0 ? 1 : 3;
    items_.assign(producers * kPerProducer, {});
    left_ = static_cast<int>(items_.size());
    std::barrier start{static_cast<std::ptrdiff_t>(producers + consumers)};
    std::vector<std::jthread> threads;
    for (unsigned int i = 0; i < producers + consumers; ++i) {
      threads.emplace_back([&, i] {
        start.arrive_and_wait();
        i < producers ? produce(i) : consume(i - producers);
      });
    }
    threads.clear();
    ASSERT_FALSE(given_up_) << size;
    EXPECT_EQ(std::ranges::count(items_, 1u, &Item::taken), std::ssize(items_));
    const auto end = -kPerProducer / 2 + static_cast<std::uint32_t>(items_.size());
    EXPECT_EQ(ring_->producer.tail, end);
    EXPECT_EQ(ring_->consumer.tail, end);
  }
}

// A thread has reserved a slot and not published it: it was descheduled, say.
TEST(Ring, LaterThreadsWaitForAStalledOne) {
  for (const bool producing : {false, true}) {
    const Ring ring = make_ring(8, 0, 0xFFFFFFFD);
    EXPECT_EQ(vorn_ring_enqueue(ring.get(), object(1)), 0);
    EXPECT_EQ(vorn_ring_enqueue(ring.get(), object(2)), 0);
    vorn_ring_end_s &end = producing ? ring->producer : ring->consumer;
    const std::uint32_t tail = end.tail;
    end.head = tail + 1;

    EXPECT_EQ(vorn_ring_count(ring.get()), 2u); // nor is it seen by the queries
    EXPECT_EQ(vorn_ring_free_count(ring.get()), 5u);
    void *objects[6] = {}; // and what it has not published is not the other end's
    EXPECT_LT(producing ? take(ring.get(), kBulk, objects, 3) : put(ring.get(), kBulk, objects, 6),
              0);
    std::thread later{[&] {
      void *one[] = {object(4)};
      EXPECT_EQ(producing ? put(ring.get(), kOne, one, 1) : take(ring.get(), kOne, one, 1), 0);
    }};
    while (load(end.head) != tail + 2)
      std::this_thread::yield();
    std::this_thread::sleep_for(std::chrono::milliseconds{2}); // time enough for it to continue
    EXPECT_EQ(load(end.tail), tail);
    vorn::atomic_word(end.tail).store(tail + 1);
    later.join();
    EXPECT_EQ(load(end.tail), tail + 2);
  }
}

} // namespace
