// Compares the time base and the tick counter with the system's clocks.
// SPDX-License-Identifier: Apache-2.0
#include <ctime>

#include "support/bench.hpp"
#include "vorn_jiffies.h"
#include "vorn_log.h"
#include "vorn_time.h"

namespace {

template <clockid_t kClock> long read_clock() {
  timespec now{};
  clock_gettime(kClock, &now);
  return now.tv_sec * 1000000000 + now.tv_nsec;
}

} // namespace

int main(int argc, char **argv) {
  vorn_log_init("time_bench", "/tmp"); // receives the log message of the missing driver
  jiffies_Init();
  const bench::Table table{argc, argv, "Clocks"};
  table.row("vorn_time_getnanosec",
            {bench::ours(vorn_time_getnanosec),
             bench::peer("CLOCK_MONOTONIC", read_clock<CLOCK_MONOTONIC>),
             bench::peer("CLOCK_MONOTONIC_RAW", read_clock<CLOCK_MONOTONIC_RAW>)});
  table.row("vorn_get_jiffies",
            {bench::ours(vorn_get_jiffies),
             bench::peer("CLOCK_MONOTONIC", read_clock<CLOCK_MONOTONIC>),
             bench::peer("CLOCK_MONOTONIC_COARSE", read_clock<CLOCK_MONOTONIC_COARSE>)});
  vorn_log_destroy(0);
}
