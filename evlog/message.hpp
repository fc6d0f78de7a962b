// Declares log messages: lines with time, level, module, thread and place.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_MESSAGE_HPP
#define VORN_EVLOG_MESSAGE_HPP

#include <cstdarg>

#include "evlog.h"

namespace logging {

struct Place {
  const char *file;
  unsigned int line;
  const char *function;
};

enum class Written {
  kNot,       // the text cannot be formatted
  kToFile,    // the log file
  kElsewhere, // the console, or nowhere
};

Written write_vmessage(unsigned int module, int level, const Place &place, const char *format,
                       std::va_list args) EVLOG_PRINTF(4, 0);
void write_message(unsigned int module, int level, const Place &place, const char *format, ...)
    EVLOG_PRINTF(4, 5);

} // namespace logging

#endif
