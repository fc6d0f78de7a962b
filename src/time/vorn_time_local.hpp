// The zone of the process.
#ifndef VORN_TIME_LOCAL_HPP
#define VORN_TIME_LOCAL_HPP

#include <ctime>

#include "vorn_time.h"

namespace vorn::time {

// The name that vorn_time_zone_name_set keeps, with its NUL; empty at the start.
void copy_zone_name(char (&out)[VORN_TIME_ZONE_NAME_LENGTH + 1]);

// Has the C library look whether the system's zone was changed: tzset(3).
void reread_zone();

// The local time in the system's zone as it is by now. False, with errno, where it does not reach.
bool local_time(time_t time, tm *local);

} // namespace vorn::time

#endif
