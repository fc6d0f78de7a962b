// Compares the ring with queues of the same capacity. Equal numbers of producers and consumers pass
// objects through a ring of 1024 slots. A thread that finds the queue full or empty tries kPatience
// times, and then yields the processor before each further try. This is the same for all queues,
// because there may be more threads than CPUs.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_ring.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <latch>
#include <sched.h>
#include <string>
#include <thread>
#include <vector>

#include <boost/lockfree/queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <concurrentqueue/concurrentqueue.h>

#define false 0 // its functions also return false as a pointer
#include <ck_ring.h>
#undef false

#include "support/bench.hpp"

namespace {

constexpr std::size_t kCapacity = 1023;
constexpr int kPatience = 64;
constexpr unsigned int kCalls = 1024;

// The minimum number of objects of a producer, large enough that all threads run concurrently and
// are descheduled, and that their start does not count.
constexpr std::uint64_t kMinObjects = 1 << 13;

// The queues follow. Each has a Producer for every producing thread: its put() enqueues as many of
// the n objects as fit and returns their number. It has a Consumer with take() for every consuming
// thread.

template <std::uint32_t kFlags> struct Vorn {
  explicit Vorn(unsigned int) : ring(vorn_ring_create(kCapacity + 1, kFlags)) {}
  ~Vorn() { vorn_ring_delete(&ring); }

  struct Producer {
    Vorn &queue;
    std::size_t put(void **objects, std::size_t n) {
      if (n == 1) return vorn_ring_enqueue(queue.ring, *objects) == 0 ? 1 : 0;
      return vorn_ring_enqueue_burst(queue.ring, objects, static_cast<std::uint32_t>(n));
    }
  };
  struct Consumer {
    Vorn &queue;
    std::size_t take(void **objects, std::size_t n) {
      if (n == 1) return vorn_ring_dequeue(queue.ring, objects) == 0 ? 1 : 0;
      return vorn_ring_dequeue_burst(queue.ring, objects, static_cast<std::uint32_t>(n));
    }
  };

  vorn_ring_s *ring;
};

// Calls what for each object in turn, until it refuses one.
template <class What> std::size_t each(void **objects, std::size_t n, What what) {
  std::size_t done = 0;
  while (done < n && what(objects[done]))
    ++done;
  return done;
}

// Has no burst operations.
template <bool kSingle> struct Ck {
  explicit Ck(unsigned int) { ck_ring_init(&ring, kCapacity + 1); }

  struct Producer {
    Ck &queue;
    std::size_t put(void **objects, std::size_t n) {
      return each(objects, n, [this](void *object) {
        if constexpr (kSingle) return ck_ring_enqueue_spsc(&queue.ring, queue.buffer, object);
        return ck_ring_enqueue_mpmc(&queue.ring, queue.buffer, object);
      });
    }
  };
  struct Consumer {
    Ck &queue;
    std::size_t take(void **objects, std::size_t n) {
      return each(objects, n, [this](void *&object) {
        if constexpr (kSingle) return ck_ring_dequeue_spsc(&queue.ring, queue.buffer, &object);
        return ck_ring_dequeue_mpmc(&queue.ring, queue.buffer, &object);
      });
    }
  };

  ck_ring_t ring;
  ck_ring_buffer_t buffer[kCapacity + 1];
};

struct BoostSpsc {
  explicit BoostSpsc(unsigned int) {}

  struct Producer {
    BoostSpsc &queue;
    std::size_t put(void **objects, std::size_t n) { return queue.queue.push(objects, n); }
  };
  struct Consumer {
    BoostSpsc &queue;
    std::size_t take(void **objects, std::size_t n) { return queue.queue.pop(objects, n); }
  };

  boost::lockfree::spsc_queue<void *, boost::lockfree::capacity<kCapacity>> queue;
};

// Has no burst operations.
struct BoostQueue {
  explicit BoostQueue(unsigned int) {}

  struct Producer {
    BoostQueue &queue;
    std::size_t put(void **objects, std::size_t n) {
      return each(objects, n, [this](void *object) { return queue.queue.push(object); });
    }
  };
  struct Consumer {
    BoostQueue &queue;
    std::size_t take(void **objects, std::size_t n) {
      return each(objects, n, [this](void *&object) { return queue.queue.pop(object); });
    }
  };

  boost::lockfree::queue<void *, boost::lockfree::capacity<kCapacity>> queue;
};

// Uses a token for each thread. A producer never releases a block, so each gets two blocks in
// advance; otherwise, the other producers could take all blocks.
struct Moodycamel {
  using Queue = moodycamel::ConcurrentQueue<void *>;

  explicit Moodycamel(unsigned int threads) : queue(kCapacity + 1) {
    void *objects[2 * Queue::BLOCK_SIZE] = {};
    for (unsigned int i = 0; i < threads; ++i) {
      tokens.emplace_back(queue);
      queue.try_enqueue_bulk(tokens.back(), objects, std::size(objects));
      while (queue.try_dequeue_bulk(objects, std::size(objects)) != 0)
        continue;
    }
  }

  struct Producer {
    explicit Producer(Moodycamel &of)
        : queue(of.queue), token(of.tokens[of.next_token.fetch_add(1)]) {}
    std::size_t put(void **objects, std::size_t n) {
      if (n == 1) return queue.try_enqueue(token, *objects) ? 1 : 0;
      return queue.try_enqueue_bulk(token, objects, n) ? n : 0;
    }
    Queue &queue;
    moodycamel::ProducerToken &token;
  };
  struct Consumer {
    explicit Consumer(Moodycamel &of) : queue(of.queue), token(of.queue) {}
    std::size_t take(void **objects, std::size_t n) {
      if (n == 1) return queue.try_dequeue(token, *objects) ? 1 : 0;
      return queue.try_dequeue_bulk(token, objects, n);
    }
    Queue &queue;
    moodycamel::ConsumerToken token;
  };

  Queue queue;
  std::vector<moodycamel::ProducerToken> tokens;
  std::atomic<std::size_t> next_token{0};
};

// A thread that is descheduled in the middle of an operation can make the other threads spin in the
// middle of theirs, and with some queues the threads then run in turns for seconds. This does not
// happen in a service, which also works on its objects; so every thread yields from time to time.
class Patience {
public:
  void spend(std::size_t moved) {
    failures_ = moved == 0 ? failures_ + 1 : 0;
    if (failures_ > kPatience || ++calls_ % kCalls == 0) sched_yield();
  }

private:
  int failures_ = 0;
  unsigned int calls_ = 0;
};

// The share of one thread. The sum of the objects shows whether the queue lost any.
struct Share {
  std::uint64_t count;
  std::uint64_t sum = 0;
  bench::Clock::time_point start{};
  bench::Clock::time_point end{};
};

template <std::size_t kBurst, class Producer> void produce(Producer producer, Share &share) {
  void *objects[kBurst];
  Patience patience;
  std::size_t first = kBurst; // index of the first object to put
  std::uint64_t next = 1;
  for (std::uint64_t left = share.count; left > 0;) {
    if (first == kBurst) {
      for (void *&object : objects) {
        object = reinterpret_cast<void *>(next);
        share.sum += next++;
      }
      first = 0;
    }
    const std::size_t put = producer.put(objects + first, kBurst - first);
    patience.spend(put);
    first += put;
    left -= put;
  }
}

template <std::size_t kBurst, class Consumer> void consume(Consumer consumer, Share &share) {
  void *objects[kBurst];
  Patience patience;
  for (std::uint64_t left = share.count; left > 0;) {
    const std::size_t wanted = std::min<std::uint64_t>(kBurst, left);
    const std::size_t taken = consumer.take(objects, wanted);
    patience.spend(taken);
    for (std::size_t i = 0; i < taken; ++i)
      share.sum += reinterpret_cast<std::uintptr_t>(objects[i]);
    left -= taken;
  }
}

// Returns the time from the start of the first thread to the end of the last one.
bench::Nanoseconds spent(const std::vector<Share> &shares) {
  const auto first = [](auto &a, auto &b) { return a.start < b.start; };
  const auto last = [](auto &a, auto &b) { return a.end < b.end; };
  return std::max_element(shares.begin(), shares.end(), last)->end -
         std::min_element(shares.begin(), shares.end(), first)->start;
}

// The first half of shares belongs to the producers.
void check(const std::vector<Share> &shares) {
  std::uint64_t balance = 0;
  for (std::size_t i = 0; i < shares.size(); ++i)
    balance += i < shares.size() / 2 ? shares[i].sum : -shares[i].sum;
  if (balance == 0) return;
  std::fprintf(stderr, "objects were lost\n");
  std::exit(EXIT_FAILURE);
}

// Passes objects through a new queue, from pairs producers to pairs consumers. Returns the time for
// count objects.
template <class Queue, std::size_t kBurst>
bench::Nanoseconds pass(std::uint64_t count, unsigned int pairs) {
  const std::uint64_t batches = std::max(count, pairs * kMinObjects) / kBurst / pairs;
  std::vector<Share> shares(2 * pairs, Share{batches * kBurst});
  Queue queue{pairs};
  std::latch ready{2 * pairs};
  const auto work = [&](unsigned int index, Share &share, auto what) {
    bench::pin(index, 2 * pairs);
    ready.arrive_and_wait();
    share.start = bench::Clock::now();
    what(share);
    share.end = bench::Clock::now();
  };

  std::vector<std::thread> threads;
  for (unsigned int i = 0; i < pairs; ++i) {
    threads.emplace_back(work, 2 * i, std::ref(shares[i]), [&queue](Share &share) {
      produce<kBurst>(typename Queue::Producer{queue}, share);
    });
    threads.emplace_back(work, 2 * i + 1, std::ref(shares[pairs + i]), [&queue](Share &share) {
      consume<kBurst>(typename Queue::Consumer{queue}, share);
    });
  }
  for (std::thread &thread : threads)
    thread.join();
  check(shares);
  return spent(shares) * count / (batches * kBurst * pairs);
}

template <class Queue, std::size_t kBurst> auto passing(unsigned int pairs) {
  return [pairs](std::uint64_t count) { return pass<Queue, kBurst>(count, pairs); };
}

template <std::size_t kBurst> std::string text(const char *threads) {
  const std::string objects = kBurst == 1 ? "one by one" : "bursts of " + std::to_string(kBurst);
  return std::string{threads} + ", " + objects;
}

template <std::size_t kBurst> void single(const bench::Table &table) {
  table.row(text<kBurst>("one producer, one consumer").c_str(),
            {bench::ours(passing<Vorn<VORN_RING_SINGLE>, kBurst>(1)),
             bench::peer("ck_ring", passing<Ck<true>, kBurst>(1)),
             bench::peer("Boost.Lockfree", passing<BoostSpsc, kBurst>(1)),
             bench::peer("moodycamel", passing<Moodycamel, kBurst>(1))});
}

template <std::size_t kBurst> std::vector<bench::Contender> contenders(unsigned int pairs) {
  return {bench::ours(passing<Vorn<0>, kBurst>(pairs)),
          bench::peer("ck_ring", passing<Ck<false>, kBurst>(pairs)),
          bench::peer("Boost.Lockfree", passing<BoostQueue, kBurst>(pairs)),
          bench::peer("moodycamel", passing<Moodycamel, kBurst>(pairs))};
}

template <std::size_t kBurst>
void multi(const bench::Table &table, const char *threads, unsigned int pairs) {
  table.row(text<kBurst>(threads).c_str(), contenders<kBurst>(pairs));
}

// Leaves out ck_ring if there are more threads than CPUs: each of its threads spins until the one
// before it has ended its operation, for seconds if that one waits for a CPU.
template <std::size_t kBurst> void measure_curve(const bench::Table &table, const char *file) {
  const std::string title = text<kBurst>("Ring: as many producers as consumers");
  const bench::Curve curve{table, {file, title, "threads", "object"}};
  for (unsigned int pairs = 1; pairs <= 8; ++pairs) {
    std::vector<bench::Contender> queues = contenders<kBurst>(pairs);
    if (2 * pairs > std::thread::hardware_concurrency())
      std::erase_if(queues, [](const auto &queue) { return queue.name == "ck_ring"; });
    curve.point(2 * pairs, 1, queues);
  }
}

} // namespace

int main(int argc, char **argv) {
  const bench::Table table{argc, argv, "Ring: time per object, capacity 1023"};
  if (bench::wants_curves()) {
    measure_curve<1>(table, "ring");
    measure_curve<32>(table, "ring-bursts");
    return 0;
  }
  single<1>(table);
  single<32>(table);
  multi<1>(table, "two and two", 2);
  multi<32>(table, "two and two", 2);
  multi<1>(table, "three and three", 3);
  multi<1>(table, "four and four", 4);
  multi<32>(table, "four and four", 4);
}
