// Keeps how a run read the medium: throughput over time, and how long reads took. Any thread may
// call any function. The memory does not grow with the run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SERIES_HPP
#define SCRUB_SERIES_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

namespace scrub {

class Series {
public:
  static constexpr std::size_t kPoints = 600;
  static constexpr std::size_t kBuckets = 32;

  struct Figures {
    std::uint64_t interval = 0;        // nanoseconds of a point
    std::uint64_t elapsed = 0;         // nanoseconds from the start to the last read
    std::vector<std::uint64_t> points; // bytes read in each interval
    // Reads by time: bucket 0 is below 1 microsecond, bucket n from 2^(n-1) to 2^n, and the last
    // bucket has no upper end.
    std::array<std::uint64_t, kBuckets> latency{};
    std::uint64_t reads = 0;
    std::uint64_t bytes = 0;
    std::uint64_t longest = 0; // nanoseconds of a read
  };

  // The run begins.
  Series();

  // Adds a read of the medium and the time that it took.
  void add_read(std::uint64_t bytes, std::uint64_t nanoseconds);

  // The same for a read that ended as many nanoseconds after the start.
  void add_read_at(std::uint64_t since_start, std::uint64_t bytes, std::uint64_t nanoseconds);

  Figures figures();

private:
  void halve();

  const std::uint64_t started_; // nanoseconds
  std::mutex mutex_;            // held for a few additions
  std::array<std::uint64_t, kPoints> points_{};
  std::size_t used_ = 0;   // points
  std::uint64_t interval_; // of a point
  Figures sums_{};         // all but interval and points
};

} // namespace scrub

#endif
