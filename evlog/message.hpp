// Log messages: lines with time, level, module, thread and place.
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

// False when the text cannot be formatted.
bool write_vmessage(unsigned int module, int level, const Place &place, const char *format,
                    std::va_list args) EVLOG_PRINTF(4, 0);
bool write_message(unsigned int module, int level, const Place &place, const char *format, ...)
    EVLOG_PRINTF(4, 5);

} // namespace logging

#endif
