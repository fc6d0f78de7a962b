// Shows the progress of a run: a bar on a terminal, or else a plain line every few seconds. A timer
// of the library draws it, even while a read hangs. SIGUSR1 has a line of it written to standard
// error. Any thread may call any function.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PROGRESS_HPP
#define SCRUB_PROGRESS_HPP

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "console.hpp"
#include "vorn_timer.h"

namespace scrub {

// How much a run read during the last seconds. A reader that hangs shows as a rate that falls.
class RecentRate {
public:
  static constexpr std::uint64_t kInterval = 500'000'000; // nanoseconds between two samples

  // Takes the number of bytes read so far. Keeps it if the last sample is old enough.
  void sample(std::uint64_t nanoseconds, std::uint64_t bytes);

  // Returns bytes a second since the oldest sample; 0 without a sample before this time.
  double rate(std::uint64_t nanoseconds, std::uint64_t bytes) const;

private:
  struct Sample {
    std::uint64_t nanoseconds = 0;
    std::uint64_t bytes = 0;
  };
  static constexpr std::size_t kSamples = 10; // five seconds

  std::array<Sample, kSamples> samples_{};
  std::size_t taken_ = 0;
};

class Progress {
public:
  // name begins the lines on standard error. If shown is false, nothing appears on standard output.
  Progress(Console &console, std::string name, bool shown);
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;
  ~Progress();

  // Whether a bar is drawn, which needs to know the bytes to read.
  bool shows_bar() const { return shown_ == Shown::kBar; }

  // Add to the bytes to read, and subtract bytes that the run will not read. Nothing shows a share
  // or the time left while the total is 0.
  void expect_bytes(std::uint64_t bytes) { total_.fetch_add(bytes, std::memory_order_relaxed); }
  void drop_bytes(std::uint64_t bytes) { total_.fetch_sub(bytes, std::memory_order_relaxed); }

  void add_bytes(std::uint64_t bytes) { bytes_.fetch_add(bytes, std::memory_order_relaxed); }
  void add_file() { files_.fetch_add(1, std::memory_order_relaxed); }

  // Prints a line on standard output, above the bar.
  void print(const char *format, ...) __attribute__((format(printf, 2, 3)));

  // Writes a line on standard error, whatever the form of the output is.
  void warn(const char *text);

  // Draws the last state, which stays on the screen. If the run is not complete, the bar stays
  // where it is.
  void finish(bool complete);

private:
  enum class Shown { kNothing, kLines, kBar };

  static void expired(std::uint64_t self);
  void tick();
  void answer();
  void draw_bar();
  void clear_bar();
  unsigned int percent() const;
  std::string amount(const char *separator) const;
  std::string state() const;

  Console &console_;
  const std::string name_;
  const Shown shown_;
  vorn_timer_s timer_{};

  // No thread derives anything from two of these together but a line for people, so their order is
  // of no account.
  std::atomic<std::uint64_t> total_ = 0;
  std::atomic<std::uint64_t> bytes_ = 0;
  std::atomic<std::uint64_t> files_ = 0;

  std::mutex mutex_; // held while the following change, and while lines are printed
  RecentRate rate_;
  std::uint64_t next_line_; // nanoseconds
  bool bar_shown_ = false;
};

} // namespace scrub

#endif
