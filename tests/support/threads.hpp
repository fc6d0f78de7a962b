// Runs the same function in several threads, and waits for what other threads and processes do.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TESTS_THREADS_HPP
#define VORN_TESTS_THREADS_HPP

#include <chrono>
#include <thread>
#include <vector>

// Calls body(0) to body(count - 1), each in its own thread, and returns after all of them.
template <class Body> void run_threads(int count, Body body) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < count; ++thread)
    threads.emplace_back([&body, thread] { body(thread); });
  for (std::thread &thread : threads)
    thread.join();
}

// Waits for a condition, for some seconds. A unit of work that is lost shows after ten.
template <class Condition> bool soon(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds{8};
  while (!condition() && std::chrono::steady_clock::now() < end)
    std::this_thread::sleep_for(std::chrono::microseconds{200});
  return condition();
}

#endif
