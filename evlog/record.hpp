// Records: lines with time, level, module, thread and place.
#ifndef VORN_EVLOG_RECORD_HPP
#define VORN_EVLOG_RECORD_HPP

#include <cstdarg>

#include "evlog.h"

namespace logging {

struct Place {
  const char *file;
  unsigned int line;
  const char *function;
};

// False when the text cannot be formatted.
bool write_vrecord(unsigned int module, int level, const Place &place, const char *format,
                   std::va_list args) EVLOG_PRINTF(4, 0);
bool write_record(unsigned int module, int level, const Place &place, const char *format, ...)
    EVLOG_PRINTF(4, 5);

// While locked no record is written.

} // namespace logging

#endif
