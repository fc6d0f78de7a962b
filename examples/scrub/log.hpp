// Writes the node's log under the service's module id.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_LOG_HPP
#define SCRUB_LOG_HPP

#include <cstdint>

#include "evlog.h"
#include "memory.hpp"

namespace scrub {

// Not atomic: of a pipeline's threads, only the caller's writes log messages.
inline std::uint64_t log_messages_written = 0;

inline void count_log_message(int result) {
  if (result == 0) ++log_messages_written;
}

} // namespace scrub

// Checks the level first: a log message that is not wanted costs one load and no formatting.
#define SCRUB_LOG(level, ...)                                                                      \
  (evlog_level_check(::scrub::kModule, (level)) != 0                                               \
       ? (void)0                                                                                   \
       : ::scrub::count_log_message(                                                               \
             evlog(::scrub::kModule, (level), __FILE_NAME__, __LINE__, __func__, 0, __VA_ARGS__)))

#endif
