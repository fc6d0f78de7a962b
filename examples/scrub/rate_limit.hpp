// Limits the rate of reads: the caller tells it the time, in nanoseconds, and learns how long to
// wait.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_RATE_LIMIT_HPP
#define SCRUB_RATE_LIMIT_HPP

#include <algorithm>
#include <cstdint>

namespace scrub {

class RateLimit {
public:
  // The time that a delayed reader may make up for. In any span, it reads at most what the rate
  // allows for the span plus this window, plus one read.
  static constexpr std::uint64_t kWindow = 100'000'000;

  // The limit begins now. 0 bytes a second is no limit.
  RateLimit(std::uint64_t bytes_per_second, std::uint64_t now)
      : rate_(bytes_per_second), due_(now) {}

  // Counts bytes of a read, at most 10^10.
  void add(std::uint64_t bytes, std::uint64_t now) {
    if (rate_ == 0) return;
    due_ = std::max(due_ + kWindow, now) - kWindow;
    due_ += (bytes * 1'000'000'000 + rate_ - 1) / rate_;
  }

  // Returns how long the next read has to wait.
  std::uint64_t delay(std::uint64_t now) const { return due_ > now ? due_ - now : 0; }

private:
  std::uint64_t rate_;
  std::uint64_t due_; // when the next read may begin
};

} // namespace scrub

#endif
