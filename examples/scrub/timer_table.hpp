// Keeps how often the timers of the service expired, and how late. Any thread may call any
// function.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_TIMER_TABLE_HPP
#define SCRUB_TIMER_TABLE_HPP

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "vorn_timer.h"

namespace scrub {

struct TimerRow {
  std::string purpose;
  std::string set_by; // function, file and line
  bool high_resolution = false;
  std::uint64_t period = 0; // nanoseconds, of the last expiry
  std::uint64_t expiries = 0;
  std::uint64_t latest = 0; // nanoseconds that a call came after the expiry, at most
};

class TimerTable {
public:
  // Called by the timer's function, before it arms the timer again. Timers of one purpose share a
  // row. purpose is a constant text of the source.
  void note(const char *purpose, const vorn_timer_s &timer);

  std::vector<TimerRow> rows();

private:
  std::mutex mutex_;
  std::vector<TimerRow> rows_;
};

// The table of this process.
TimerTable &timer_table();

} // namespace scrub

#endif
