#include "vorn_spinlock.h"

#include <cstdint>

#include "base/thread_id.hpp"
#include "evlog.h"
#include "vorn_symbol.h"

namespace vorn::lock {
namespace {

constexpr std::uintptr_t kStackBytes = 4096;

// What the frame pointer points at, on every processor of ours.
struct Frame {
  std::uintptr_t caller; // where the caller's frame is
  std::uintptr_t return_address;
};

// Goes from frame to frame, as long as they lie within the stack. A caller's frame lies above.
class FrameWalk {
public:
  explicit FrameWalk(const void *frame)
      : at_(reinterpret_cast<std::uintptr_t>(frame)), lower_(at_),
        upper_(at_ + kStackBytes - sizeof(Frame)) {}

  bool inside() const { return at_ >= lower_ && at_ <= upper_ && at_ % alignof(Frame) == 0; }

  // The frame's return address, and on to the caller's frame. 0, and no further, outside the stack.
  // What is read may be any words of the stack, if a function without frame pointers came between.
  [[gnu::no_sanitize_address, gnu::no_sanitize_thread]] std::uintptr_t next() {
    if (!inside()) return 0;
    const auto *frame = reinterpret_cast<const Frame *>(at_);
    lower_ = at_ + sizeof(Frame);
    at_ = frame->caller;
    return frame->return_address;
  }

private:
  std::uintptr_t at_;
  std::uintptr_t lower_;
  std::uintptr_t upper_;
};

// An address and what lies there, for one record.
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

void debug_dump_stack(unsigned int skip) {
  vorn::lock::FrameWalk walk{__builtin_frame_address(0)};
  for (; skip > 0 && walk.inside(); --skip)
    walk.next();
  const vorn::lock::Place first{walk.next()};
  const vorn::lock::Place second{walk.next()};
  const vorn::lock::Place third{walk.next()};
  evlog_original("current tid:%d, stack:%p(%s) << %p(%s) << %p(%s).",
                 static_cast<int>(vorn::thread_id()), first.address(), first.name(),
                 second.address(), second.name(), third.address(), third.name());
}
