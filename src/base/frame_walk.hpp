// Goes up the calling thread's stack by frame pointers. Reads nothing outside the given bounds.
#ifndef VORN_BASE_FRAME_WALK_HPP
#define VORN_BASE_FRAME_WALK_HPP

#include <cstdint>

namespace vorn {

// What the frame pointer points at, on every processor of ours.
struct Frame {
  std::uintptr_t caller; // where the caller's frame is
  std::uintptr_t return_address;
};

// The usable stack: the lowest address and the one behind the highest.
struct StackBounds {
  unsigned long low;
  unsigned long high;
};

// Goes from frame to frame, as long as they lie within the stack. A caller's frame lies above.
class FrameWalk {
public:
  FrameWalk(const void *frame, const StackBounds &stack)
      : at_(reinterpret_cast<std::uintptr_t>(frame)), lower_(stack.low),
        upper_(stack.high > sizeof(Frame) ? stack.high - sizeof(Frame) : 0) {}

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

  void skip(unsigned int frames) {
    for (; frames > 0 && inside(); --frames)
      next();
  }

private:
  std::uintptr_t at_;
  std::uintptr_t lower_;
  std::uintptr_t upper_;
};

} // namespace vorn

#endif
