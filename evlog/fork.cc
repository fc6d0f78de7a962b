// A fork waits until nobody holds one of the library's locks, so that the child finds them free:
// the thread that held one would not be there to release it.
#include <pthread.h>

#include "output.hpp"
#include "rate_limit.hpp"
#include "record.hpp"

namespace logging {

namespace {

void lock_all() {
  lock_rate_limits();
  lock_records();
  lock_log_file();
}

void unlock_all() {
  unlock_log_file();
  unlock_records();
  unlock_rate_limits();
}

[[gnu::constructor]] void watch_forks() { pthread_atfork(lock_all, unlock_all, unlock_all); }

} // namespace

} // namespace logging
