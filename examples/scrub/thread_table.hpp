// Keeps the CPU time of each thread of the process, also of those that have ended. Any thread may
// call any function.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_THREAD_TABLE_HPP
#define SCRUB_THREAD_TABLE_HPP

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace scrub {

struct ThreadRow {
  long tid = 0;
  std::string name{};
  std::string strategy{};  // of the library; empty: the library does not know the thread
  double seconds = 0;      // of CPU time
  std::uint64_t began = 0; // ticks since the start of the system
  bool ended = false;
};

class ThreadTable {
public:
  // Takes the CPU time of every thread from the system. Called once a second, so that a thread that
  // ends without note() loses less than a second. The table has at most kMost rows.
  void sample();

  // Takes the CPU time of the calling thread, which is about to end.
  void note();

  // Takes a last sample, and returns the threads in the order in which they began.
  std::vector<ThreadRow> rows();

  static constexpr std::size_t kMost = 256;

private:
  void take(ThreadRow row);

  std::mutex mutex_;
  std::vector<ThreadRow> rows_;
};

// The table of this process.
ThreadTable &thread_table();

} // namespace scrub

#endif
