// SPDX-License-Identifier: Apache-2.0
#include "vorn_log.h"

#include "arch/forward.hpp"
#include "evlog.h"

// The signatures of these four belong to the logging library, which a node may replace: nothing
// that is written in C++ would pass on arguments it does not know.
VORN_FORWARD(vorn_log_init, evlog_init);
VORN_FORWARD(vorn_log_destroy, evlog_destroy);
VORN_FORWARD(vorn_log_level_set, evlog_loglevel_set);
VORN_FORWARD(vorn_log_level_get, evlog_loglevel_get);

int vorn_ratelimit_set(unsigned int module, unsigned int a, unsigned int b) {
  return evlog_ratelimit_set(evlog_get_group_id(module), a, b);
}
