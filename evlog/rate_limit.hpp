// The rate limit of each group of modules.
#ifndef VORN_EVLOG_RATE_LIMIT_HPP
#define VORN_EVLOG_RATE_LIMIT_HPP

namespace logging {

// Whether a record of group may be written now. *dropped is the number of records to report ahead
// of it, 0 for none.
bool admit_record(int group, unsigned long *dropped);

// Begins anew with this limit. False: no such group. *dropped is the number of records still to be
// reported.
bool set_rate_limit(int group, unsigned int burst, unsigned int interval_ms,
                    unsigned long *dropped);

} // namespace logging

#endif
