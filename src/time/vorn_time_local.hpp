// Declares the time zone of the process.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_TIME_LOCAL_HPP
#define VORN_TIME_LOCAL_HPP

#include <ctime>

#include "vorn_time.h"

namespace vorn::time {

// The name that vorn_time_zone_name_set stores, with its NUL; initially empty.
void copy_zone_name(char (&out)[VORN_TIME_ZONE_NAME_LENGTH + 1]);

// Calls tzset(3), which reads the system's zone again.
void reread_zone();

// Converts to local time in the system's present zone. Returns false with errno on overflow.
bool local_time(time_t time, tm *local);

} // namespace vorn::time

#endif
