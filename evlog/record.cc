#include "record.hpp"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <memory>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <string_view>

#include "base/mutex.hpp"
#include "output.hpp"

namespace logging {

namespace {

constexpr char kPattern[] = "%Y-%m-%dT%H:%M:%S.%f%z %L %n %t %v";
constexpr std::size_t kTextBytes = 4096;
constexpr std::size_t kLineBytes = kTextBytes + 256; // with what the pattern puts ahead of the text

// Forms the line under the sink's lock and hands it on whole. spdlog's own file sinks are not used:
// they throw where the disk is full, buffer what a crash then loses, and share no descriptor with a
// signal handler.
class LineSink final : public spdlog::sinks::base_sink<vorn::Mutex> {
public:
  using Write = ssize_t (*)(std::string_view);

  explicit LineSink(Write write)
      : base_sink(std::make_unique<spdlog::pattern_formatter>(kPattern)), write_(write) {
    line_.reserve(kLineBytes); // so that no record allocates
  }

private:
  void sink_it_(const spdlog::details::log_msg &record) override {
    line_.clear();
    formatter_->format(record, line_);
    write_({line_.data(), line_.size()});
  }

  void flush_() override {}

  Write write_;
  spdlog::memory_buf_t line_;
};

// Each has its own lock: a console that blocks holds up no record for the file.
struct Sinks {
  Sinks() { console.set_level(spdlog::level::warn); }
  LineSink file{write_log_file};
  LineSink console{write_console};
};

// Never destroyed, as destructors of other objects log.
Sinks &sinks() {
  static Sinks &made = *new Sinks;
  return made;
}

// Made when the library is loaded, so that no record meets a failing allocation.
[[gnu::constructor]] void make_sinks() { sinks(); }

spdlog::level::level_enum spdlog_level(int level) {
  if (level < EVLOG_ERROR) return spdlog::level::critical;
  if (level == EVLOG_ERROR) return spdlog::level::err;
  if (level == EVLOG_WARNING) return spdlog::level::warn;
  if (level <= EVLOG_INFO) return spdlog::level::info;
  return spdlog::level::debug;
}

const char *shown(const char *text) { return text == nullptr ? "(null)" : text; }

// Place and text; empty when the text cannot be formatted.
std::string_view form_text(char (&out)[kTextBytes], const Place &place, const char *format,
                           std::va_list args) EVLOG_PRINTF(3, 0);

std::string_view form_text(char (&out)[kTextBytes], const Place &place, const char *format,
                           std::va_list args) {
  int length =
      snprintf(out, kTextBytes, "%s:%u %s: ", shown(place.file), place.line, shown(place.function));
  if (length < 0) return {};
  const std::size_t start = std::min(static_cast<std::size_t>(length), kTextBytes - 1);
  length = format == nullptr ? snprintf(out + start, kTextBytes - start, "(null)")
                             : vsnprintf(out + start, kTextBytes - start, format, args);
  if (length < 0) return {};
  std::string_view text{out, std::min(start + static_cast<std::size_t>(length), kTextBytes - 1)};
  if (text.ends_with('\n')) text.remove_suffix(1);
  return text;
}

} // namespace

bool write_vrecord(unsigned int module, int level, const Place &place, const char *format,
                   std::va_list args) {
  char buffer[kTextBytes];
  const std::string_view text = form_text(buffer, place, format, args);
  if (text.empty()) return false;
  char digits[16];
  const auto end = std::to_chars(digits, digits + sizeof digits, module).ptr;

  const spdlog::details::log_msg record{{digits, static_cast<std::size_t>(end - digits)},
                                        spdlog_level(level),
                                        {text.data(), text.size()}};
  for (LineSink *sink : {&sinks().file, &sinks().console}) {
    if (sink->should_log(record.level)) sink->log(record);
  }
  return true;
}

bool write_record(unsigned int module, int level, const Place &place, const char *format, ...) {
  std::va_list args;
  va_start(args, format);
  const bool written = write_vrecord(module, level, place, format, args);
  va_end(args);
  return written;
}

} // namespace logging
