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

// A ring of size slots beside a queue, both used by one thread.
class Comparison {
public:
  Comparison(std::uint32_t size, std::uint32_t flags, std::uint32_t counters)
      : ring_(make_ring(size, flags, counters)), size_(size), objects_(size + 2) {}

  void step() {
    const bool putting = random_() % 2 == 0;
    const Call call = any_call(random_());
    const std::uint32_t n = call == kOne ? 1 : random_() % (size_ + 3);
    const std::uint32_t most = putting ? room() : count();
    const std::uint32_t moved = n <= most ? n : call == kBurst ? most : 0;
    if (putting) {
      for (void *&made : objects_)
        made = object(++made_);
      const int failure_or_none = n <= most ? 0 : -105;
      EXPECT_EQ(put(ring_.get(), call, objects_.data(), n),
                call == kBurst ? static_cast<int>(moved) : failure_or_none);
      queue_.insert(queue_.end(), objects_.begin(), objects_.begin() + moved);
      return;
    }
    objects_.assign(size_ + 2, nullptr);
    const int failure_or_none = n <= most ? 0 : -2;
    EXPECT_EQ(take(ring_.get(), call, objects_.data(), n),
              call == kBurst ? static_cast<int>(moved) : failure_or_none);
    std::vector<void *> wanted{queue_.begin(), queue_.begin() + moved};
    queue_.erase(queue_.begin(), queue_.begin() + moved);
    wanted.resize(objects_.size()); // nothing else was written
    EXPECT_EQ(objects_, wanted);
  }

  void compare_queries() const {
    EXPECT_EQ(vorn_ring_count(ring_.get()), count());
    EXPECT_EQ(vorn_ring_free_count(ring_.get()), room());
    EXPECT_EQ(vorn_ring_full(ring_.get()), room() == 0 ? 1u : 0u);
    EXPECT_EQ(vorn_ring_empty(ring_.get()), count() == 0 ? 1u : 0u);
    EXPECT_EQ(vorn_ring_size(ring_.get()), size_);
  }

private:
  std::uint32_t count() const { return static_cast<std::uint32_t>(queue_.size()); }
  std::uint32_t room() const { return size_ - 1 - count(); }

  Ring ring_;
  std::deque<void *> queue_;
  std::uint32_t size_;
  std::mt19937 random_{1};
  std::vector<void *> objects_;
  std::uintptr_t made_ = 0;
};

// Runs that wrap in every way, and counters that pass 2^32.
TEST_P(EachMode, DoesAsAQueueDoes) {
  for (const std::uint32_t size : {1u, 2u, 8u, 16u}) {
    for (const std::uint32_t counters : {0u, 0x7FFFFFF0u, 0xFFFFFFF3u}) {
      Comparison comparison{size, GetParam(), counters};
      for (int step = 0; step < 500 && !HasFailure(); ++step) {
        comparison.step();
        comparison.compare_queries();
      }
    }
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

// One thread at an end: moves batches of changing size, each by another of the three calls, and
// tells how many objects went.
class Mover {
public:
  Mover(vorn_ring_s *ring, unsigned int seed) : ring_(ring), random_(seed) {}

  template <class Move, class Objects>
  std::uint32_t operator()(Move move, Objects objects, std::uint32_t most = kMost) {
    if (++calls_ % 8 == 0) std::this_thread::yield();
    const Call call = any_call(random_());
    const std::uint32_t n =
        call == kOne ? 1 : std::min(1 + static_cast<std::uint32_t>(random_()) % kMost, most);
    const int result = move(ring_, call, objects, n);
    return call == kBurst ? static_cast<std::uint32_t>(result) : result == 0 ? n : 0;
  }

  static constexpr std::uint32_t kMost = 7;

private:
  vorn_ring_s *ring_;
  std::mt19937 random_;
  unsigned int calls_ = 0;
};

class Traffic {
public:
  static constexpr unsigned int kPerProducer = 3000;

  Traffic(std::uint32_t size, std::uint32_t flags)
      // The counters pass 2^32 in the middle of it.
      : ring_(make_ring(size, flags, -kPerProducer / 2)),
        producers_(ring_->producer.single != 0 ? 1 : 3),
        consumers_(ring_->consumer.single != 0 ? 1 : 3), items_(producers_ * kPerProducer),
        ready_(producers_ + consumers_), left_(static_cast<int>(items_.size())) {}

  void run() {
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < producers_; ++i)
      threads.emplace_back([this, i] { produce(i); });
    for (unsigned int i = 0; i < consumers_; ++i)
      threads.emplace_back([this, i] { consume(i); });
    for (std::thread &thread : threads)
      thread.join();
  }

  void expect_each_taken_once() const {
    EXPECT_TRUE(in_order_);
    EXPECT_EQ(left_, 0);
    EXPECT_EQ(std::ranges::count(items_, 1u, &Item::taken), std::ssize(items_));
    EXPECT_EQ(vorn_ring_empty(ring_.get()), 1u);
    const std::uint32_t counter = -kPerProducer / 2 + static_cast<std::uint32_t>(items_.size());
    for (const vorn_ring_end_s *end : {&ring_->producer, &ring_->consumer}) {
      EXPECT_EQ(end->head, counter);
      EXPECT_EQ(end->tail, counter);
    }
  }

private:
  void produce(unsigned int producer) {
    ready_.arrive_and_wait();
    Mover mover{ring_.get(), producer + 1};
    void *batch[Mover::kMost];
    for (unsigned int next = 0; next < kPerProducer && !given_up_;) {
      const std::uint32_t n = std::min(Mover::kMost, kPerProducer - next);
      for (std::uint32_t i = 0; i < n; ++i) {
        Item &item = items_[producer * kPerProducer + next + i];
        item.producer = producer;
        item.number = next + i;
        batch[i] = &item;
      }
      const std::uint32_t put = mover(::put, batch, n);
      if (put == 0) std::this_thread::yield();
      next += put;
    }
  }

  void consume(unsigned int consumer) {
    ready_.arrive_and_wait();
    Mover mover{ring_.get(), consumer + 11};
    std::vector<unsigned int> next(producers_);
    void *batch[Mover::kMost];
    while (left_ > 0 && !given_up_) {
      const std::uint32_t taken = mover(::take, batch);
      if (taken == 0) std::this_thread::yield();
      for (std::uint32_t i = 0; i < taken; ++i)
        accept(static_cast<Item *>(batch[i]), next);
      left_ -= static_cast<int>(taken);
    }
  }

  void accept(Item *item, std::vector<unsigned int> &next) {
    if (item < items_.data() || item >= items_.data() + items_.size() ||
        item->number < next[item->producer]) {
      in_order_ = false;
      given_up_ = true; // counters may be such that the others would not end
      return;
    }
    next[item->producer] = item->number + 1;
    ++item->taken;
  }

  Ring ring_;
  unsigned int producers_;
  unsigned int consumers_;
  std::vector<Item> items_;
  std::latch ready_;
  std::atomic<int> left_;
  std::atomic<bool> in_order_{true};
  std::atomic<bool> given_up_{false};
};

TEST_P(EachMode, KeepsEveryObjectAndTheOrderOfEachProducer) {
  for (const std::uint32_t size : {2u, 8u, 64u}) {
    Traffic traffic{size, GetParam()};
    traffic.run();
    traffic.expect_each_taken_once();
  }
  EXPECT_NO_RECORD();
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
