// Keeps throughput over time, and how long reads took.
// SPDX-License-Identifier: Apache-2.0
#include "series.hpp"

#include <algorithm>
#include <bit>

#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kFirstInterval = 10'000'000; // nanoseconds

std::size_t bucket_of(std::uint64_t nanoseconds) {
  const auto bucket = static_cast<std::size_t>(std::bit_width(nanoseconds / 1000));
  return std::min(bucket, Series::kBuckets - 1);
}

} // namespace

Series::Series() : started_(vorn_time_getnanosec()), interval_(kFirstInterval) {}

void Series::add_read(std::uint64_t bytes, std::uint64_t nanoseconds) {
  add_read_at(vorn_time_getnanosec() - started_, bytes, nanoseconds);
}

// The lock covers additions, and once in a long while 600 of them: beside a read of the medium,
// threads do not notice each other.
void Series::add_read_at(std::uint64_t since_start, std::uint64_t bytes,
                         std::uint64_t nanoseconds) {
  const std::lock_guard hold(mutex_);
  while (since_start / interval_ >= kPoints)
    halve();
  const std::size_t point = since_start / interval_;
  points_[point] += bytes;
  used_ = std::max(used_, point + 1);
  ++sums_.latency[bucket_of(nanoseconds)];
  ++sums_.reads;
  sums_.bytes += bytes;
  sums_.elapsed = std::max(sums_.elapsed, since_start);
  sums_.longest = std::max(sums_.longest, nanoseconds);
}

// Merges each two points into one, which covers twice the time.
void Series::halve() {
  for (std::size_t i = 0; i < kPoints / 2; ++i)
    points_[i] = points_[2 * i] + points_[2 * i + 1];
  std::fill(points_.begin() + kPoints / 2, points_.end(), 0);
  used_ = (used_ + 1) / 2;
  interval_ *= 2;
}

Series::Figures Series::figures() {
  const std::lock_guard hold(mutex_);
  Figures figures = sums_;
  figures.interval = interval_;
  figures.points.assign(points_.begin(), points_.begin() + static_cast<std::ptrdiff_t>(used_));
  return figures;
}

} // namespace scrub
