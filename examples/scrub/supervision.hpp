// Checks every second whether scheduled work exceeds its time limit or the pool stands still, as it
// does when a device hangs. The library logs what it finds; the run refers the operator to the log.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_SUPERVISION_HPP
#define SCRUB_SUPERVISION_HPP

#include <atomic>
#include <cstdint>

#include "machine.hpp"
#include "progress.hpp"
#include "vorn_timer.h"
#include "work.hpp"

namespace scrub {

class Supervision {
public:
  // Samples the CPUs at each check. If stall is set, adds an item that overruns until a check
  // notices it. Throws std::runtime_error if no timer can be armed.
  Supervision(Progress &progress, CpuUsage &cpus, bool stall);
  Supervision(const Supervision &) = delete;
  Supervision &operator=(const Supervision &) = delete;
  ~Supervision();

  // Waits until a check has noticed the stall, if there is one. Prints no line after that.
  void finish();

private:
  static void expired(std::uint64_t self);
  std::uint64_t check();

  Progress &progress_;
  CpuUsage &cpus_;
  const bool stall_;
  std::atomic<bool> noticed_ = false; // or no thread waits for it any more
  vorn_timer_s timer_{};
  Work stalled_;
};

} // namespace scrub

#endif
