// Compares the enhanced semaphore with those of the system and of the C++ library. One thread
// releases and takes a unit; or two threads wake each other in turn, and each sleeps while the
// other runs. One operation of the latter is a round of two wake-ups.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_sem_enhance.h"

#include <barrier>
#include <semaphore.h>
#include <semaphore>
#include <string>
#include <thread>

#include "support/bench.hpp"
#include "vorn_time.h"

namespace {

struct Enhanced {
  Enhanced() { vorn_sem_enhance_init(&sem, 0); }
  void up() { vorn_sem_enhance_up(&sem); }
  void down() { vorn_sem_enhance_down(&sem); }
  vorn_sem_enhance_s sem;
};

struct Posix {
  Posix() { sem_init(&sem, 0, 0); }
  void up() { sem_post(&sem); }
  void down() {
    while (sem_wait(&sem) != 0) // interrupted by a signal
      continue;
  }
  sem_t sem;
};

struct Standard {
  void up() { sem.release(); }
  void down() { sem.acquire(); }
  std::counting_semaphore<> sem{0};
};

template <class Semaphore> bench::Contender up_and_down(const std::string &name) {
  auto *sem = new Semaphore; // lives until the program ends
  return bench::contender(name, [=] {
    sem->up();
    sem->down();
  });
}

template <class Semaphore> bench::Contender up_alone(const std::string &name) {
  return bench::contender(name, [](std::uint64_t count) {
    Semaphore sem;
    const auto start = bench::Clock::now();
    for (std::uint64_t i = 0; i < count; ++i)
      sem.up();
    return bench::Nanoseconds{bench::Clock::now() - start};
  });
}

template <class Semaphore> bench::Nanoseconds play(std::uint64_t rounds) {
  Semaphore ping;
  Semaphore pong;
  std::barrier begin{2};
  std::jthread partner{[&] {
    begin.arrive_and_wait();
    for (std::uint64_t i = 0; i < rounds; ++i) {
      ping.down();
      pong.up();
    }
  }};
  begin.arrive_and_wait();
  const auto start = bench::Clock::now();
  for (std::uint64_t i = 0; i < rounds; ++i) {
    ping.up();
    pong.down();
  }
  return bench::Clock::now() - start;
}

// Rounds in one operation, enough that the time to start the threads does not matter.
constexpr std::uint64_t kBatch = 200;

template <class Semaphore> bench::Contender ping_pong(const std::string &name) {
  return bench::contender(name,
                          [](std::uint64_t n) { return play<Semaphore>(n * kBatch) / kBatch; });
}

} // namespace

int main(int argc, char **argv) {
  vorn_gettime_init();
  const bench::Table table{argc, argv, "Semaphores"};
  table.row("up, no waiter",
            {up_alone<Enhanced>("ours"), up_alone<Posix>("sem_t"), up_alone<Standard>("std")});
  table.row("up and down, no waiter", {up_and_down<Enhanced>("ours"), up_and_down<Posix>("sem_t"),
                                       up_and_down<Standard>("std")});
  // Shows the peers in separate rows: sem_t sleeps immediately, as ours must, std tries and yields
  // first.
  table.row("two threads in turn, a round",
            {ping_pong<Enhanced>("ours"), ping_pong<Posix>("sem_t")});
  table.row("two threads in turn, a round (the peer spins)",
            {ping_pong<Enhanced>("ours"), ping_pong<Standard>("std")});
}
