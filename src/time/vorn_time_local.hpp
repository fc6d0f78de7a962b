// The zone of the process.
#ifndef VORN_TIME_LOCAL_HPP
#define VORN_TIME_LOCAL_HPP

#include "vorn_time.h"

namespace vorn::time {

// The name that vorn_time_zone_name_set keeps, with its NUL; empty at the start.
void copy_zone_name(char (&out)[VORN_TIME_ZONE_NAME_LENGTH + 1]);

} // namespace vorn::time

#endif
