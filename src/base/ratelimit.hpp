// Defines the rate limiter: a call site writes at most 3 log messages in a burst, and reports the
// suppressed ones at most once every 150000 jiffies.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_RATELIMIT_HPP
#define VORN_BASE_RATELIMIT_HPP

#include <atomic>
#include <cstdint>

#include "base/log.hpp"
#include "vorn_jiffies.h"

namespace vorn {

// The state of one call site, initially all zero. It has no lock: a thread reads and writes each
// field as a whole. If two threads meet in one site, a count may be lost.
struct RateLimit {
  std::atomic<std::uint64_t> interval_start;
  std::atomic<std::uint32_t> printed;
  std::atomic<std::uint32_t> suppressed;
  std::atomic<std::uint64_t> last_report;
};

inline constexpr std::uint64_t kRateLimitInterval = 15000;
inline constexpr std::uint64_t kRateLimitReportInterval = 150000;
inline constexpr std::uint32_t kRateLimitBurst = 3;

// Counts a log message of the site. Returns false if the caller must drop it. Sets *report to the
// number of suppressed messages to report first.
bool rate_limit_admit(RateLimit &site, std::uint32_t *report);

} // namespace vorn

// Logs a rate-limited message in the name of func. report_level is the level of the report of the
// suppressed ones, which the macro writes without a second level test.
#define VORN_LOG_RATELIMITED_AS(func, level, report_level, ...)                                    \
  do {                                                                                             \
    if (!::vorn::log_wanted(level)) break;                                                         \
    static constinit ::vorn::RateLimit vorn_site;                                                  \
    std::uint32_t vorn_report = 0;                                                                 \
    if (!::vorn::rate_limit_admit(vorn_site, &vorn_report)) break;                                 \
    if (vorn_report != 0) {                                                                        \
      VORN_LOG_UNCHECKED(VORN_FILE, __LINE__, func, report_level,                                  \
                         "print: %u messages suppressed.%s,line=%d.", vorn_report, (func),         \
                         __LINE__);                                                                \
    }                                                                                              \
    VORN_LOG_AS(func, level, __VA_ARGS__);                                                         \
  } while (false)

#define VORN_LOG_RATELIMITED(level, ...)                                                           \
  VORN_LOG_RATELIMITED_AS(__func__, level, ::vorn::kInfo, __VA_ARGS__)

#endif
