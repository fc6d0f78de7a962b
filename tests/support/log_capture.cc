// Replaces the functions of the logging library by ones that store the messages.
// SPDX-License-Identifier: Apache-2.0
#include "support/log_capture.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <pthread.h>
#include <utility>

#include "evlog.h"

namespace capture {
namespace {

// The number of the next log message, for their order.
std::atomic<unsigned long> next_number{0};

std::mutex mutex;
std::vector<Message> messages;
std::vector<unsigned long> numbers; // of the log messages

// The lines of evlog_original, which signal handlers call: stored without a lock, and only the
// first ones.
struct Original {
  unsigned long number;
  char text[640];
  std::atomic<bool> complete;
};
Original originals[8192];
std::atomic<std::size_t> original_count{0};
std::size_t taken = 0; // the number of lines taken; guarded by the mutex
std::atomic<int> wanted_level{EVLOG_DEBUG};

std::string format_text(const char *format, va_list args) EVLOG_PRINTF(1, 0);

std::string format_text(const char *format, va_list args) {
  char text[4096];
  const int length = std::vsnprintf(text, sizeof text, format, args);
  return length < 0 ? std::string() : std::string(text);
}

void keep(Message message) {
  std::lock_guard hold{mutex};
  messages.push_back(std::move(message));
  numbers.push_back(next_number++);
}

void keep_original(const char *format, va_list args) EVLOG_PRINTF(1, 0);

void keep_original(const char *format, va_list args) {
  const std::size_t at = original_count++;
  if (at >= std::size(originals)) return;
  originals[at].number = next_number++;
  std::vsnprintf(originals[at].text, sizeof originals[at].text, format, args);
  originals[at].complete.store(true, std::memory_order_release);
}

std::string mark(const Message &message) {
  return message.level == EVLOG_ERROR ? "E " : message.level == EVLOG_WARNING ? "W " : "";
}

} // namespace

// Does not allocate unless evlog_original was called.
std::vector<Message> take() {
  std::lock_guard hold{mutex};
  for (; taken < std::size(originals) && originals[taken].complete.load(std::memory_order_acquire);
       ++taken) {
    const auto at = std::ranges::upper_bound(numbers, originals[taken].number) - numbers.begin();
    messages.insert(messages.begin() + at, {0, kOriginal, "", 0, "", originals[taken].text});
    numbers.insert(numbers.begin() + at, originals[taken].number);
  }
  numbers.clear();
  return std::exchange(messages, {});
}

std::vector<std::string> take_lines() {
  std::vector<std::string> lines;
  for (const Message &message : take())
    lines.push_back(mark(message) + message.text);
  return lines;
}

std::string outcome(int result) {
  std::string text = std::to_string(result);
  for (const std::string &line : take_lines())
    text += "; " + line;
  return text;
}

std::string traced(int result) {
  std::string text = std::to_string(result);
  for (const Message &message : take())
    text += "; " + mark(message) + message.function + ": " + message.text;
  return text;
}

void set_level(int level) { wanted_level = level; }

} // namespace capture

extern "C" {

int evlog_level_check(unsigned int, int level) {
  errno = ENOTTY; // the library must keep its caller's errno over this and over the message
  return level <= capture::wanted_level ? 0 : 1;
}

int evlog(unsigned int module, int level, const char *file, unsigned int line, const char *function,
          unsigned int, const char *format, ...) {
  pthread_testcancel(); // a node's own library may be a cancellation point
  va_list args;
  va_start(args, format);
  capture::keep({module, level, file, line, function, capture::format_text(format, args)});
  va_end(args);
  errno = ENOTTY;
  return 0;
}

int evlog_vraw(const char *format, va_list args) {
  pthread_testcancel();
  capture::keep({0, capture::kRaw, "", 0, "", capture::format_text(format, args)});
  return 0;
}

int evlog_original(const char *format, ...) {
  pthread_testcancel();
  va_list args;
  va_start(args, format);
  capture::keep_original(format, args);
  va_end(args);
  return 0;
}
}
