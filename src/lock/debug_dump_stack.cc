// Logs the calling thread's stack.
// SPDX-License-Identifier: Apache-2.0
#include "vorn_spinlock.h"

#include <cstdint>

#include "base/cancellation_guard.hpp"
#include "base/frame_walk.hpp"
#include "base/thread_id.hpp"
#include "evlog.h"
#include "vorn_symbol.h"
#include "vorn_thrd.h"

namespace vorn::lock {
namespace {

constexpr unsigned long kStackBytes = 4096;

// Returns the bounds of the stack that holds frame. If they are unknown, assumes kStackBytes above
// it.
StackBounds stack_of(const void *frame) {
  const auto address = reinterpret_cast<unsigned long>(frame);
  StackBounds stack{};
  const char *kind = nullptr;
  if (vorn_thrd_getcurrentstack(address, &stack.low, &stack.high, &kind) == 0) return stack;
  return {address, address + kStackBytes};
}

// An address and the name of its function, for one log message.
class Place {
public:
  explicit Place(std::uintptr_t address) : address_(address) {
    vorn_symbol_addr_to_string(address, name_, sizeof name_);
  }

  const void *address() const { return reinterpret_cast<const void *>(address_); }
  const char *name() const { return name_; }

private:
  std::uintptr_t address_;
  char name_[64] = "";
};

} // namespace
} // namespace vorn::lock

using namespace vorn::lock;

void debug_dump_stack(unsigned int skip) {
  const void *frame = __builtin_frame_address(0);
  vorn::FrameWalk walk{frame, stack_of(frame)};
  walk.skip(skip);
  const Place first{walk.next()};
  const Place second{walk.next()};
  const Place third{walk.next()};
  const vorn::CancellationGuard off; // the caller may hold a lock
  evlog_original("current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).",
                 static_cast<int>(vorn::thread_id()), first.address(), first.name(),
                 second.address(), second.name(), third.address(), third.name());
}
