// A fork waits until no thread changes the log's file, so that the child can change it too: the
// thread that did would not be there to finish. The library's mutexes see to themselves.
#include <pthread.h>

#include "output.hpp"

namespace logging {

namespace {

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(lock_log_file, unlock_log_file, unlock_log_file);
}

} // namespace

} // namespace logging
