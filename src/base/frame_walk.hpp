// Walks up a stack by frame pointers, within given bounds.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_FRAME_WALK_HPP
#define VORN_BASE_FRAME_WALK_HPP

#include <cstdint>

namespace vorn {

// The words that the frame pointer points to, on each supported processor.
struct Frame {
  std::uintptr_t caller; // address of the caller's frame
  std::uintptr_t return_address;
};

// The bounds of a stack: the lowest address, and the one after the highest.
struct StackBounds {
  unsigned long low;
  unsigned long high;
};

// The state of the frame that a frame pointer leads to.
enum class Link {
  kGood,
  kNone, // the outermost frame names no caller
  kMisaligned,
  kDown, // not above the frame that it calls
  kOutside,
};

// Checks frame by frame, from the innermost. Reads no memory: the owner reads the frames.
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

  // Moves on to the caller's frame, which frame names. Called only for a good frame.
  void follow(const Frame &frame) {
    above_ = at_ + sizeof(Frame);
    at_ = frame.caller;
  }

private:
  std::uintptr_t at_;
  std::uintptr_t low_;
  std::uintptr_t above_; // the lowest address of the caller's frame
  std::uintptr_t last_;
};

// Walks the calling thread's own stack.
class FrameWalk {
public:
  FrameWalk(const void *frame, const StackBounds &stack)
      : chain_(reinterpret_cast<std::uintptr_t>(frame), stack) {}

  bool inside() const { return chain_.link() == Link::kGood; }

  // Returns the frame's return address and moves on to the caller's frame. Returns 0 and stays if
  // the frame is outside the stack. If a function without frame pointers came between, the value
  // may be any word of the stack.
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
