// Declares the rate limit of each group of modules.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_EVLOG_RATE_LIMIT_HPP
#define VORN_EVLOG_RATE_LIMIT_HPP

namespace logging {

// Returns whether a log message of group may be written now. *dropped is the number of dropped
// messages to report before it, 0 for none.
bool admit_message(int group, unsigned long *dropped);

// Begins anew with this limit. False: no such group. *dropped is the number of dropped messages not
// reported yet.
bool set_rate_limit(int group, unsigned int burst, unsigned int interval_ms,
                    unsigned long *dropped);

} // namespace logging

#endif
