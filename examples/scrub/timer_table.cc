// Keeps how often the timers of the service expired, and how late.
// SPDX-License-Identifier: Apache-2.0
#include "timer_table.hpp"

#include <algorithm>
#include <ctime>

#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kMillisecond = 1'000'000;

// Returns the nanoseconds since the timer's expiry.
std::uint64_t lateness(const vorn_timer_s &timer) {
  if ((timer.flags & VORN_TIMER_HR) == 0) {
    const std::uint64_t now = vorn_time_getmillisec();
    return now < timer.expirTime ? 0 : (now - timer.expirTime) * kMillisecond;
  }
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const std::int64_t late =
      (now.tv_sec - timer.seconds) * 1'000'000'000 + now.tv_nsec - timer.nanoseconds;
  return late < 0 ? 0 : static_cast<std::uint64_t>(late);
}

std::string set_by(const vorn_timer_s &timer) {
  const std::string file = timer.file == nullptr ? "" : timer.file;
  return std::string(timer.funcName == nullptr ? "" : timer.funcName) + ", " +
         file.substr(file.rfind('/') + 1) + ":" + std::to_string(timer.line);
}

} // namespace

// The timer is not pending while its function runs, so that no other thread changes it.
void TimerTable::note(const char *purpose, const vorn_timer_s &timer) {
  const std::uint64_t late = lateness(timer);
  const bool high_resolution = (timer.flags & VORN_TIMER_HR) != 0;
  const std::lock_guard hold(mutex_);
  auto row = std::find_if(rows_.begin(), rows_.end(),
                          [&](const TimerRow &at) { return at.purpose == purpose; });
  if (row == rows_.end()) row = rows_.insert(row, {.purpose = purpose, .set_by = set_by(timer)});
  row->high_resolution = high_resolution;
  row->period = timer.timeOut * (high_resolution ? 1 : kMillisecond);
  ++row->expiries;
  row->latest = std::max(row->latest, late);
}

std::vector<TimerRow> TimerTable::rows() {
  const std::lock_guard hold(mutex_);
  return rows_;
}

TimerTable &timer_table() {
  static TimerTable table;
  return table;
}

} // namespace scrub
