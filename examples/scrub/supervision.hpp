// Looks every second whether scheduled work overruns its time limit or the pool stands still, as a
// device that hangs has it do. The library logs what it finds; the operator is told to look there.
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
  // Samples the CPUs meanwhile. With stall, adds an item that overruns until that has been noticed.
  // Throws std::runtime_error when no timer can be armed.
  Supervision(Progress &progress, CpuUsage &cpus, bool stall);
  Supervision(const Supervision &) = delete;
  Supervision &operator=(const Supervision &) = delete;
  ~Supervision();

  // Waits until the stall, if there is one, has been noticed. No line is printed from then on.
  void finish();

private:
  static void expired(std::uint64_t self);
  std::uint64_t check();

  Progress &progress_;
  CpuUsage &cpus_;
  const bool stall_;
  std::atomic<bool> noticed_ = false; // or not awaited any more
  vorn_timer_s timer_{};
  Work stalled_;
};

} // namespace scrub

#endif
