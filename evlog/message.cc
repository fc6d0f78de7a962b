// Forms the line of a log message on the stack and writes it without a lock.
//
// A write to the console blocks until the reader reads, so no other thread may wait for it: neither
// fork(), which waits for the holders of locks, nor a thread whose message goes to the file. A
// thread holds the mutex only while spdlog forms the head of the line. Each line is a single write
// to a file that is opened for appending, so lines never mix and the lines of one thread keep their
// order. The lines of two threads can be in a different order than their times, which the threads
// read just before the write.
// SPDX-License-Identifier: Apache-2.0
#include "message.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <memory>
#include <spdlog/pattern_formatter.h>
#include <string_view>
#include <unistd.h>

#include "base/mutex.hpp"
#include "console.hpp"
#include "output.hpp"
#include "signal_stack.hpp"

namespace logging {

namespace {

constexpr std::size_t kHeadBytes = 128; // at most 71 are used
constexpr std::size_t kTextBytes = 4095;

// Only the formatter of spdlog is used. Its file sinks throw if the disk is full, buffer data that
// a crash loses, write under a lock, and share no descriptor with a signal handler.
struct Heads {
  vorn::Mutex mutex; // the formatter caches the broken-down time of the current second
  spdlog::pattern_formatter formatter{"%Y-%m-%dT%H:%M:%S.%f%z %L %n %t ",
                                      spdlog::pattern_time_type::local, ""};
};

// Never destroyed, because destructors of other objects log.
Heads &heads() {
  static Heads &made = *new Heads;
  return made;
}

// Makes the formatter when the library is loaded, so that no message needs an allocation that may
// fail.
[[gnu::constructor]] void make_heads() { heads(); }

spdlog::level::level_enum spdlog_level(int level) {
  if (level < EVLOG_ERROR) return spdlog::level::critical;
  if (level == EVLOG_ERROR) return spdlog::level::err;
  if (level == EVLOG_WARNING) return spdlog::level::warn;
  if (level <= EVLOG_INFO) return spdlog::level::info;
  return spdlog::level::debug;
}

const char *shown(const char *text) { return text == nullptr ? "(null)" : text; }

// Writes place and text to out, which has room for kTextBytes and a NUL. Returns the length, or 0
// if the text cannot be formatted.
std::size_t form_text(char *out, const Place &place, const char *format, std::va_list args)
    EVLOG_PRINTF(3, 0);

std::size_t form_text(char *out, const Place &place, const char *format, std::va_list args) {
  int length = snprintf(out, kTextBytes + 1, "%s:%u %s: ", shown(place.file), place.line,
                        shown(place.function));
  if (length < 0) return 0;
  const std::size_t start = std::min(static_cast<std::size_t>(length), kTextBytes);
  const std::size_t room = kTextBytes + 1 - start;
  length = format == nullptr ? snprintf(out + start, room, "(null)")
                             : vsnprintf(out + start, room, format, args);
  if (length < 0) return 0;
  const std::size_t end = std::min(start + static_cast<std::size_t>(length), kTextBytes);
  return out[end - 1] == '\n' ? end - 1 : end;
}

char level_letter(int level) {
  constexpr char kLetters[] = "CCCEWII";
  return level < 0 ? 'C' : level > EVLOG_INFO ? 'D' : kLetters[level];
}

// Writes the head as the formatter does, but without a lock and in UTC. Returns the length.
std::size_t form_plain_head(char *out, unsigned int module, int level) {
  using namespace std::chrono;
  const auto now = floor<microseconds>(system_clock::now());
  const auto day = floor<days>(now);
  const year_month_day date{day};
  const hh_mm_ss time{now - day};
  const int length =
      snprintf(out, kHeadBytes, "%04d-%02u-%02uT%02ld:%02ld:%02ld.%06ld+00:00 %c %u %d ",
               static_cast<int>(date.year()), static_cast<unsigned int>(date.month()),
               static_cast<unsigned int>(date.day()), static_cast<long>(time.hours().count()),
               static_cast<long>(time.minutes().count()), static_cast<long>(time.seconds().count()),
               static_cast<long>(time.subseconds().count()), level_letter(level), module, gettid());
  return length < 0 ? 0 : std::min(static_cast<std::size_t>(length), kHeadBytes - 1);
}

// Writes time, level, module and thread to the bytes before text. Returns where they begin.
char *form_head(char *text, unsigned int module, int level) {
  if (on_signal_stack()) {
    char plain[kHeadBytes];
    const std::size_t size = form_plain_head(plain, module, level);
    return std::copy_n(plain, size, text - size) - size;
  }
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, module).ptr;
  const spdlog::details::log_msg message{
      {digits, static_cast<std::size_t>(end - digits)}, spdlog_level(level), {}};
  spdlog::memory_buf_t head; // holds a head without an allocation
  {
    const vorn::MutexGuard hold{heads().mutex};
    heads().formatter.format(message, head);
  }
  const std::size_t length = std::min(head.size(), kHeadBytes);
  return std::copy_n(head.data(), length, text - length) - length;
}

} // namespace

Written write_vmessage(unsigned int module, int level, const Place &place, const char *format,
                       std::va_list args) {
  char buffer[kHeadBytes + kTextBytes + 1]; // the newline replaces the NUL
  char *const text = buffer + kHeadBytes;
  const std::size_t length = form_text(text, place, format, args);
  if (length == 0) return Written::kNot;
  text[length] = '\n';
  const char *const start = form_head(text, module, level);

  const std::string_view line{start, text + length + 1};
  if (write_log_file(line) >= 0) return Written::kToFile;
  if (level <= EVLOG_WARNING) write_console(line);
  return Written::kElsewhere;
}

void write_message(unsigned int module, int level, const Place &place, const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  write_vmessage(module, level, place, format, args);
  va_end(args);
}

} // namespace logging
