// Goes up a stack by frame pointers. Leads nowhere outside the given bounds.
#ifndef VORN_BASE_FRAME_WALK_HPP
#define VORN_BASE_FRAME_WALK_HPP

#include <cstdint>

namespace vorn {

// What the frame pointer points at, on every processor of ours.
struct Frame {
  std::uintptr_t caller; // where the caller's frame is
  std::uintptr_t return_address;
};

// The usable stack: the lowest address and the one after the highest.
struct StackBounds {
  unsigned long low;
  unsigned long high;
};

// What is to be said of the frame that a frame pointer leads to.
enum class Link {
  kGood,
  kNone, // the outermost frame names no caller
  kMisaligned,
  kDown, // not above the frame that it is the caller's of
  kOutside,
};

// Frame by frame from the innermost. Reads no memory: the frames come from the owner.
class FrameChain {
public:
  FrameChain(std::uintptr_t frame, const StackBounds &stack)
      : at_(frame), low_(stack.low), above_(stack.low),
        last_(stack.high > sizeof(Frame) ? stack.high - sizeof(Frame) : 0) {}

  std::uintptr_t at() const { return at_; }

  Link link() const {
    if (at_ == 0) return Link::kNone;
    if (at_ < low_ || at_ > last_) return Link::kOutside;
    if (at_ % alignof(Frame) != 0) return Link::kMisaligned;
    return at_ < above_ ? Link::kDown : Link::kGood;
  }

  // On to the caller's frame, which frame names. Only from a good one.
  void follow(const Frame &frame) {
    above_ = at_ + sizeof(Frame);
    at_ = frame.caller;
  }

private:
  std::uintptr_t at_;
  std::uintptr_t low_;
  std::uintptr_t above_; // the caller's frame begins here at the lowest
  std::uintptr_t last_;
};

// The calling thread's own stack, as long as the frames lie within it.
class FrameWalk {
public:
  FrameWalk(const void *frame, const StackBounds &stack)
      : chain_(reinterpret_cast<std::uintptr_t>(frame), stack) {}

  bool inside() const { return chain_.link() == Link::kGood; }

  // The frame's return address, and on to the caller's frame. 0, and no further, outside the stack.
  // What is read may be any words of the stack, if a function without frame pointers came between.
  [[gnu::no_sanitize_address, gnu::no_sanitize_thread]] std::uintptr_t next() {
    if (!inside()) return 0;
    const auto *frame = reinterpret_cast<const Frame *>(chain_.at());
    const Frame copy{frame->caller, frame->return_address};
    chain_.follow(copy);
    return copy.return_address;
  }

  void skip(unsigned int frames) {
    for (; frames > 0 && inside(); --frames)
      next();
  }

private:
  FrameChain chain_;
};

} // namespace vorn

#endif
