// Draws the progress bar.
// SPDX-License-Identifier: Apache-2.0
#include "progress.hpp"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <sys/ioctl.h>
#include <unistd.h>

#include "text.hpp"
#include "vorn_time.h"

namespace scrub {
namespace {

constexpr std::uint64_t kSecond = 1'000'000'000;
constexpr std::uint64_t kBarInterval = 100; // milliseconds
constexpr std::uint64_t kLineInterval = 5000;
constexpr char kClearLine[] = "\r\033[K";

std::size_t terminal_width() {
  winsize size{};
  const bool known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col != 0;
  return known ? size.ws_col : 80;
}

std::string speed_text(std::uint64_t bytes, std::uint64_t nanoseconds) {
  const double seconds = static_cast<double>(std::max<std::uint64_t>(nanoseconds, 1)) / kSecond;
  return bytes_text(static_cast<double>(bytes) / seconds) + "/s";
}

} // namespace

// If no timer can be armed, the log says why and the run continues without the bar.
Progress::Progress(std::uint64_t total)
    : terminal_(isatty(STDOUT_FILENO) == 1), started_(vorn_time_getnanosec()), total_(total) {
  vorn_timer_set(&timer_, terminal_ ? kBarInterval : kLineInterval,
                 reinterpret_cast<std::uint64_t>(this), expired);
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

// The bar ends at 100 %, also if files were skipped or have shrunk.
void Progress::finish() {
  vorn_timer_delete_sync(&timer_);
  if (!terminal_) return;
  const std::lock_guard hold(mutex_);
  total_ = bytes_;
  draw_bar();
  std::putchar('\n');
  bar_shown_ = false;
}

void Progress::expired(std::uint64_t self) {
  auto &progress = *reinterpret_cast<Progress *>(self);
  progress.update();
  vorn_timer_add(&progress.timer_);
}

void Progress::update() {
  const std::lock_guard hold(mutex_);
  if (terminal_) {
    draw_bar();
  } else {
    print_state();
  }
  std::fflush(stdout);
}

void Progress::draw_bar() {
  char state[96];
  const int length = std::snprintf(state, sizeof state, "] %3u%%  %s of %s  %s  %s", percent(),
                                   bytes_text(static_cast<double>(bytes_)).c_str(),
                                   bytes_text(static_cast<double>(total_)).c_str(),
                                   counted(files_, "file").c_str(),
                                   speed_text(bytes_, vorn_time_getnanosec() - started_).c_str());
  const std::size_t width = terminal_width();
  const std::size_t taken = static_cast<std::size_t>(length) + 2;
  const std::size_t cells = std::clamp<std::size_t>(width, taken + 8, taken + 40) - taken;
  std::string line = "[" + std::string(cells * percent() / 100, '#');
  line.resize(1 + cells, '.');
  line += state;
  // A line that wraps cannot be cleared.
  std::printf("%s%.*s", kClearLine, static_cast<int>(width - 1), line.c_str());
  bar_shown_ = true;
}

void Progress::print_state() {
  std::printf("%3u%%  %s of %s, %s\n", percent(), bytes_text(static_cast<double>(bytes_)).c_str(),
              bytes_text(static_cast<double>(total_)).c_str(), counted(files_, "file").c_str());
}

void Progress::clear_bar() {
  if (bar_shown_) std::fputs(kClearLine, stdout);
  bar_shown_ = false;
}

// Files may have grown since their bytes were counted.
unsigned int Progress::percent() const {
  if (bytes_ >= total_) return 100;
  return static_cast<unsigned int>(100.0 * static_cast<double>(bytes_) /
                                   static_cast<double>(total_));
}

} // namespace scrub
