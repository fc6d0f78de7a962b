// Runs an operation in several threads at once.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BENCH_SUPPORT_THREADS_HPP
#define VORN_BENCH_SUPPORT_THREADS_HPP

#include <barrier>
#include <cstdint>
#include <thread>
#include <vector>

#include "support/bench.hpp"

namespace bench {

// Runs the shares of all threads, and times only these.
template <class Work>
Nanoseconds in_threads(unsigned int count, std::uint64_t share, const Work &work) {
  Clock::time_point start;
  Clock::time_point end;
  std::barrier begin{static_cast<int>(count), [&]() noexcept { start = Clock::now(); }};
  std::barrier finish{static_cast<int>(count), [&]() noexcept { end = Clock::now(); }};
  std::vector<std::jthread> threads;
  for (unsigned int i = 0; i < count; ++i) {
    threads.emplace_back([&, i] {
      pin(i, count);
      begin.arrive_and_wait();
      for (std::uint64_t n = 0; n < share; ++n)
        work();
      finish.arrive_and_wait();
    });
  }
  threads.clear();
  return end - start;
}

} // namespace bench

#endif
