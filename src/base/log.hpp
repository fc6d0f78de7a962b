// Defines the library's logging macros: level test, log message and error result in one expression,
// which keeps errno for the caller and for the arguments of the message.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_LOG_HPP
#define VORN_BASE_LOG_HPP

#include <cstddef>

#include "base/cancellation_guard.hpp"
#include "base/errno_guard.hpp"
#include "evlog.h"
#include "vorn_api.h"

namespace vorn {

inline constexpr unsigned int kModuleId = VORN_MODULE_ID;

inline constexpr int kError = EVLOG_ERROR;
inline constexpr int kWarning = EVLOG_WARNING;
inline constexpr int kInfo = EVLOG_INFO;
inline constexpr int kDebug = EVLOG_DEBUG;

// Log messages name a source as "vorn_init.c", whatever its suffix: log consumers match that form.
struct SourceName {
  char text[64];
};

consteval SourceName source_name(const char *path) {
  const char *base = path;
  for (const char *at = path; *at != '\0'; ++at) {
    if (*at == '/') base = at + 1;
  }
  SourceName name{};
  std::size_t length = 0;
  while (base[length] != '\0' && base[length] != '.') {
    name.text[length] = base[length];
    ++length;
  }
  name.text[length] = '.';
  name.text[length + 1] = 'c';
  return name;
}

// Surrounds a call of the logging library, which a node may replace. It keeps errno, and prevents
// cancellation inside the library, since the caller may hold a lock.
class LogCall {
public:
  void after(int) const { errno_.restore(); }

private:
  CancellationGuard off_;
  ErrnoGuard errno_;
};

inline bool log_wanted(int level) {
  const ErrnoGuard errno_stays;
  return ::evlog_level_check(kModuleId, level) == 0;
}

// The source being compiled, even if the log message is in a header.
namespace {
[[maybe_unused]] constexpr SourceName kSourceName = source_name(__BASE_FILE__);
}

} // namespace vorn

// If a module has several sources, each defines VORN_FILE, the name of the main one, before its
// first include.
#ifndef VORN_FILE
#define VORN_FILE (::vorn::kSourceName.text)
#endif

// Logs under another place in the code, which the caller passes.
#define VORN_LOG_AT(file, line, func, level, ...)                                                  \
  (::vorn::log_wanted(level) ? VORN_LOG_UNCHECKED(file, line, func, level, __VA_ARGS__) : (void)0)

// The same without the level test, for a message that belongs to one that passed it.
#define VORN_LOG_UNCHECKED(file, line, func, level, ...)                                           \
  ::vorn::LogCall{}.after(                                                                         \
      ::evlog(::vorn::kModuleId, (level), (file), (line), (func), 0, __VA_ARGS__))

// Logs in the name of a function other than __func__, from a lambda, a callback or a shared helper.
#define VORN_LOG_AS(func, level, ...) VORN_LOG_AT(VORN_FILE, __LINE__, func, level, __VA_ARGS__)

#define VORN_LOG(level, ...) VORN_LOG_AS(__func__, level, __VA_ARGS__)

// Logs an error and yields the result of the failed call:
//   if (out == nullptr) return VORN_FAIL(-1, "Parameter is null.");
#define VORN_FAIL(result, ...) VORN_FAIL_AS(__func__, result, __VA_ARGS__)
#define VORN_FAIL_AS(func, result, ...) (VORN_LOG_AS(func, ::vorn::kError, __VA_ARGS__), (result))

#endif
