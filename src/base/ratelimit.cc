// Counts the log messages of a call site and decides which ones to drop.
// SPDX-License-Identifier: Apache-2.0
#include "base/ratelimit.hpp"

namespace vorn {

namespace {

constexpr auto kRelaxed = std::memory_order_relaxed;

bool is_before(std::uint64_t now, std::uint64_t limit) {
  return static_cast<std::int64_t>(limit - now) > 0;
}

std::uint32_t take_report(RateLimit &site, std::uint64_t now) {
  const std::uint32_t suppressed = site.suppressed.load(kRelaxed);
  if (suppressed == 0) return 0;
  if (is_before(now, site.last_report.load(kRelaxed) + kRateLimitReportInterval)) return 0;
  site.suppressed.store(0, kRelaxed);
  site.last_report.store(vorn_get_jiffies(), kRelaxed);
  return suppressed;
}

} // namespace

bool rate_limit_admit(RateLimit &site, std::uint32_t *report) {
  const ErrnoGuard errno_stays; // reading jiffies may start their module
  const std::uint64_t now = vorn_get_jiffies();
  const std::uint32_t printed = site.printed.load(kRelaxed);
  if (is_before(now, site.interval_start.load(kRelaxed) + kRateLimitInterval)) {
    if (printed >= kRateLimitBurst) {
      site.suppressed.store(site.suppressed.load(kRelaxed) + 1, kRelaxed);
      return false;
    }
    site.printed.store(printed + 1, kRelaxed);
    site.interval_start.store(now, kRelaxed);
    return true;
  }
  *report = take_report(site, now);
  site.printed.store(1, kRelaxed);
  site.interval_start.store(now, kRelaxed);
  return true;
}

} // namespace vorn
