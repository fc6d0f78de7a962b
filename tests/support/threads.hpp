// Runs the same function in several threads.
#ifndef VORN_TESTS_THREADS_HPP
#define VORN_TESTS_THREADS_HPP

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

#endif
