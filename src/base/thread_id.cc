#include "base/thread_id.hpp"

#include <pthread.h>
#include <unistd.h>

namespace vorn {
namespace {

// The one thread that goes on in a child of fork() has another id there.
void forget_in_child() { t_thread_id = 0; }

[[gnu::constructor]] void watch_forks() { pthread_atfork(nullptr, nullptr, forget_in_child); }

} // namespace

thread_local constinit std::uint32_t t_thread_id = 0;

std::uint32_t fetch_thread_id() {
  t_thread_id = static_cast<std::uint32_t>(gettid());
  return t_thread_id;
}

} // namespace vorn
