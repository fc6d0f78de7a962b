// Records in the log of the node, under the service's module id.
#ifndef SCRUB_LOG_HPP
#define SCRUB_LOG_HPP

#include <cstdint>

#include "evlog.h"
#include "memory.hpp"

namespace scrub {

// No atomic: of a pipeline's threads the caller's alone writes records.
inline std::uint64_t log_records_written = 0;

inline void count_log_record(int result) {
  if (result == 0) ++log_records_written;
}

} // namespace scrub

// The level is asked for first, so that an unwanted record costs one load and no formatting.
#define SCRUB_LOG(level, ...)                                                                      \
  (evlog_level_check(::scrub::kModule, (level)) != 0                                               \
       ? (void)0                                                                                   \
       : ::scrub::count_log_record(                                                                \
             evlog(::scrub::kModule, (level), __FILE_NAME__, __LINE__, __func__, 0, __VA_ARGS__)))

#endif
