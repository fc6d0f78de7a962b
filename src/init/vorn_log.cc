// Passes the calls that set up the log to the logging library.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_log.h"

#include "arch/forward_call.hpp"
#include "evlog.h"

// The logging library, which a node may replace, defines the parameters of these four functions. A
// C++ function can pass on only the parameters that it knows.
VORN_FORWARD(vorn_log_init, evlog_init);
VORN_FORWARD(vorn_log_destroy, evlog_destroy);
VORN_FORWARD(vorn_log_level_set, evlog_loglevel_set);
VORN_FORWARD(vorn_log_level_get, evlog_loglevel_get);

int vorn_ratelimit_set(unsigned int module, unsigned int a, unsigned int b) {
  return evlog_ratelimit_set(evlog_get_group_id(module), a, b);
}
