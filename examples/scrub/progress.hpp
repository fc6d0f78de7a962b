// Shows the progress of a run: a bar on a terminal, or else a plain line every few seconds. A timer
// of the library draws it, even while a read hangs. Any thread may call any function.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PROGRESS_HPP
#define SCRUB_PROGRESS_HPP

#include <cstdint>
#include <mutex>

#include "vorn_timer.h"

namespace scrub {

class Progress {
public:
  // total is the number of bytes to read.
  explicit Progress(std::uint64_t total);
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  ~Progress();

  void add_bytes(std::uint64_t bytes) {
    const std::lock_guard hold(mutex_);
    bytes_ += bytes;
  }
  void add_file() {
    const std::lock_guard hold(mutex_);
    ++files_;
  }

  // Subtracts bytes that the run will not read from the total.
  void drop_bytes(std::uint64_t bytes) {
    const std::lock_guard hold(mutex_);
    total_ -= bytes;
  }

  // Prints a line above the bar.
  void print(const char *format, ...) __attribute__((format(printf, 2, 3)));

  // Draws the last state, which stays on the screen.
  void finish();

private:
  static void expired(std::uint64_t self);
  void update();
  void draw_bar();
  void print_state();
  void clear_bar();
  unsigned int percent() const;

  const bool terminal_;
  const std::uint64_t started_; // nanoseconds
  vorn_timer_s timer_{};

  std::mutex mutex_; // held while the following change, and while lines are printed
  std::uint64_t total_;
  std::uint64_t bytes_ = 0;
  std::uint64_t files_ = 0;
  bool bar_shown_ = false;
};

} // namespace scrub

#endif
