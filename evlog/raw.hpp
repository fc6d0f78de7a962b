// Declares raw texts, which the library formats and writes without a lock or an allocation, for
// signal handlers.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_RAW_HPP
#define VORN_EVLOG_RAW_HPP

#include <cstdarg>

#include "evlog.h"

namespace logging {

enum class LineEnd { kAsGiven, kAdded };

// The number of bytes written, or -1. Keeps errno.
int write_raw(LineEnd end, const char *format, std::va_list args) EVLOG_PRINTF(2, 0);

} // namespace logging

#endif
