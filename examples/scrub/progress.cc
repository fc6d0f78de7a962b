// Draws the progress bar, and prints the lines that take its place.
// SPDX-License-Identifier: Apache-2.0
#include "progress.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>
#include <utility>

#include "interrupt.hpp"
#include "text.hpp"
#include "timer_table.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kTick = 100; // milliseconds
constexpr std::uint64_t kLineInterval = 5 * kSecond;
constexpr char kClearLine[] = "\r\033[K";

std::size_t terminal_width() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col : 80;
}

std::string size_text(std::uint64_t bytes) { return bytes_text(static_cast<double>(bytes)); }

} // namespace

void RecentRate::sample(std::uint64_t nanoseconds, std::uint64_t bytes) {
  if (taken_ != 0 && nanoseconds - samples_[(taken_ - 1) % kSamples].nanoseconds < kInterval)
    return;
  samples_[taken_++ % kSamples] = {nanoseconds, bytes};
}

double RecentRate::rate(std::uint64_t nanoseconds, std::uint64_t bytes) const {
  const Sample &oldest = samples_[taken_ < kSamples ? 0 : taken_ % kSamples];
  if (taken_ == 0 || nanoseconds <= oldest.nanoseconds) return 0;
  return static_cast<double>(bytes - oldest.bytes) * kSecond /
         static_cast<double>(nanoseconds - oldest.nanoseconds);
}

// If no timer can be armed, the log says why and the run continues without the bar.
Progress::Progress(Console &console, std::string name, bool shown)
    : console_(console), name_(std::move(name)),
      shown_(!shown                       ? Shown::kNothing
             : isatty(STDOUT_FILENO) == 1 ? Shown::kBar
                                          : Shown::kLines),
      next_line_(vorn_time_getnanosec() + kLineInterval) {
  rate_.sample(vorn_time_getnanosec(), 0);
  vorn_timer_set(&timer_, kTick, reinterpret_cast<std::uint64_t>(this), expired);
  vorn_timer_add(&timer_);
}

// Ends the bar's line, so that the message about an early end has its own line.
Progress::~Progress() {
  vorn_timer_delete_sync(&timer_);
  if (bar_shown_) std::putchar('\n');
}

void Progress::print(const char *format, ...) {
  const std::lock_guard hold(mutex_);
  clear_bar();
  std::va_list args;
  va_start(args, format);
  std::vprintf(format, args);
  va_end(args);
  std::putchar('\n');
}

void Progress::warn(const char *text) {
  const std::lock_guard hold(mutex_);
  clear_bar();
  std::fflush(stdout);
  console_.say("%s", text);
}

// The bar of a complete run ends at 100 %, also if files were skipped or have shrunk.
void Progress::finish(bool complete) {
  vorn_timer_delete_sync(&timer_);
  if (shown_ != Shown::kBar) return;
  const std::lock_guard hold(mutex_);
  if (complete) total_.store(bytes_.load(std::memory_order_relaxed), std::memory_order_relaxed);
  draw_bar();
  std::putchar('\n');
  bar_shown_ = false;
}

void Progress::expired(std::uint64_t self) {
  auto &progress = *reinterpret_cast<Progress *>(self);
  progress.tick();
  timer_table().note("progress", progress.timer_);
  vorn_timer_add(&progress.timer_);
}

void Progress::tick() {
  const std::lock_guard hold(mutex_);
  const std::uint64_t now = vorn_time_getnanosec();
  rate_.sample(now, bytes_.load(std::memory_order_relaxed));
  if (progress_wanted()) answer();
  if (shown_ == Shown::kBar) draw_bar();
  if (shown_ == Shown::kLines && now >= next_line_) {
    next_line_ = now + kLineInterval;
    std::puts(state().c_str());
  }
  if (shown_ != Shown::kNothing) std::fflush(stdout);
}

// Standard error may be the same terminal: the line replaces the bar, which the tick draws again.
void Progress::answer() {
  clear_bar();
  std::fflush(stdout);
  console_.say("%s: %s", name_.c_str(), state().c_str());
}

// Returns "4.5 GB of 10.0 GB, 12 files, 512.0 MB/s, 10 s left" with the separator in place of ", ".
std::string Progress::amount(const char *separator) const {
  const std::uint64_t bytes = bytes_.load(std::memory_order_relaxed);
  const std::uint64_t total = total_.load(std::memory_order_relaxed);
  const double rate = rate_.rate(vorn_time_getnanosec(), bytes);
  std::string text = size_text(bytes);
  if (total != 0) text += " of " + size_text(std::max(bytes, total));
  text += separator + counted(files_.load(std::memory_order_relaxed), "file");
  text += separator + bytes_text(rate) + "/s";
  if (rate >= 1 && total > bytes)
    text += separator +
            duration_text(static_cast<std::uint64_t>(static_cast<double>(total - bytes) / rate)) +
            " left";
  return text;
}

std::string Progress::state() const {
  const std::string text = amount(", ");
  if (total_.load(std::memory_order_relaxed) == 0) return text;
  char share[16];
  std::snprintf(share, sizeof share, "%3u%%  ", percent());
  return share + text;
}

void Progress::draw_bar() {
  char share[16];
  std::snprintf(share, sizeof share, "] %3u%%  ", percent());
  const std::string text = share + amount("  ");
  const std::size_t width = terminal_width();
  const std::size_t taken = text.size() + 2;
  const std::size_t cells = std::clamp<std::size_t>(width, taken + 8, taken + 40) - taken;
  std::string line = "[" + std::string(cells * percent() / 100, '#');
  line.resize(1 + cells, '.');
  line += text;
  // A line that wraps cannot be cleared.
  std::printf("%s%.*s", kClearLine, static_cast<int>(width - 1), line.c_str());
  bar_shown_ = true;
}

void Progress::clear_bar() {
  if (bar_shown_) std::fputs(kClearLine, stdout);
  bar_shown_ = false;
}

// Files may have grown since their bytes were counted.
unsigned int Progress::percent() const {
  const std::uint64_t bytes = bytes_.load(std::memory_order_relaxed);
  const std::uint64_t total = total_.load(std::memory_order_relaxed);
  if (total == 0) return 0;
  if (bytes >= total) return 100;
  return static_cast<unsigned int>(100.0 * static_cast<double>(bytes) / static_cast<double>(total));
}

} // namespace scrub
