// Finds the stack that contains an address, and its bounds.
// SPDX-License-Identifier: Apache-2.0
#define VORN_FILE "vorn_thrd.c"
#include "base/frame_walk.hpp"
#include "thread/vorn_thrd.hpp"

namespace vorn::thread {
namespace {

constexpr unsigned long kPage = 4096;
constexpr unsigned long kNearFrame = 8192;

constinit std::atomic<unsigned long> unknown_stack_size{8192};

// The registered hooks that know the stacks of light-weight threads; NULL if there is none.
constinit std::atomic<int (*)(unsigned long)> is_lwt_stack{nullptr};
constinit std::atomic<int (*)(unsigned long, unsigned long *, unsigned long *)> get_lwt_stack{
    nullptr};

bool os_stack_of(const vorn_thread_s &record, StackBounds *stack) {
  *stack = {record.os_stack_low, record.os_stack_high};
  return stack->low != 0 && stack->high != 0;
}

bool holds(const StackBounds &stack, unsigned long address) {
  return stack.low <= address && address < stack.high;
}

// A frame that has just overrun the stack, into the guard, still counts.
bool holds_or_nearly(const StackBounds &stack, unsigned long address) {
  return stack.low <= address + kPage && address < stack.high;
}

int answer(const StackBounds &stack, unsigned long *low, unsigned long *high) {
  *low = stack.low;
  *high = stack.high;
  return 0;
}

} // namespace
} // namespace vorn::thread

using namespace vorn::thread;

using vorn::StackBounds;

int vorn_thrd_getosstack(unsigned long *low, unsigned long *high) {
  StackBounds stack{};
  if (low == nullptr || high == nullptr || t_record == nullptr) return -1;
  return os_stack_of(*t_record, &stack) ? answer(stack, low, high) : -1;
}

int vorn_thrd_getsigstack(unsigned long *low, unsigned long *high) {
  if (low == nullptr || high == nullptr || t_record == nullptr) return -1;
  const auto base = reinterpret_cast<unsigned long>(t_record->sig_stack);
  return base != 0 ? answer({base, base + VORN_THRD_SIGSTACK_SIZE}, low, high) : -1;
}

int vorn_thread_get_specific_stack(long tid, unsigned long *low, unsigned long *high) {
  if (low == nullptr || high == nullptr) return -1;
  vorn_thread_s *record = vorn_thrd_getthreadinfobytid(tid);
  if (record == nullptr) return -1;
  StackBounds stack{};
  const bool known = os_stack_of(*record, &stack);
  vorn_thrd_putthreadinfo(record);
  return known ? answer(stack, low, high) : -1;
}

int register_lwt_stack_ops(const vorn_lwt_stack_ops_s *ops) {
  if (ops == nullptr) return -1;
  is_lwt_stack.store(ops->is_lwt_stack);
  get_lwt_stack.store(ops->get_lwt_stack);
  return 0;
}

void unregister_lwt_stack_ops() {
  is_lwt_stack.store(nullptr);
  get_lwt_stack.store(nullptr);
}

int vorn_thrd_islwtstack(unsigned long address) {
  const auto ask = is_lwt_stack.load();
  return ask != nullptr ? ask(address) : -1;
}

int vorn_thrd_getlwtstack(unsigned long address, unsigned long *low, unsigned long *high) {
  const auto ask = get_lwt_stack.load();
  return ask != nullptr ? ask(address, low, high) : -1;
}

int vorn_thrd_getcurrentstack(unsigned long address, unsigned long *low, unsigned long *high,
                              const char **kind) {
  if (low == nullptr || high == nullptr || kind == nullptr) return -1;
  *kind = "INVALID_STACK";
  if (vorn_thrd_islwtstack(address) == 0) {
    if (vorn_thrd_getlwtstack(address, low, high) == 0) {
      *kind = "LWT_STACK";
      return 0;
    }
    *kind = "INVALID_LWT_STACK";
  }
  StackBounds stack{};
  if (vorn_thrd_getosstack(&stack.low, &stack.high) == 0 && holds_or_nearly(stack, address)) {
    *kind = "OS_STACK";
    return answer(stack, low, high);
  }
  if (vorn_thrd_getsigstack(&stack.low, &stack.high) == 0 && holds(stack, address)) {
    *kind = "SIG_STACK";
    return answer(stack, low, high);
  }
  const auto here = reinterpret_cast<unsigned long>(__builtin_frame_address(0));
  if (!holds({here, here + kNearFrame}, address)) return -1;
  *kind = "UNKNOWN_STACK";
  const unsigned long page = address & ~(kPage - 1);
  return answer({page, page + vorn_thrd_getunknownstacksize()}, low, high);
}

void vorn_thrd_setunknownstacksize(unsigned long size) {
  unknown_stack_size.store(size, std::memory_order_relaxed);
}

unsigned long vorn_thrd_getunknownstacksize() {
  return unknown_stack_size.load(std::memory_order_relaxed);
}

int vorn_thrd_backtrace(unsigned long *addresses, unsigned int count, unsigned int skip) {
  if (addresses == nullptr) return -1;
  const void *frame = __builtin_frame_address(0);
  StackBounds stack{};
  const char *kind = nullptr;
  const auto address = reinterpret_cast<unsigned long>(frame);
  if (vorn_thrd_getcurrentstack(address, &stack.low, &stack.high, &kind) != 0) stack = {};
  vorn::FrameWalk walk(frame, stack);
  walk.skip(skip);
  for (unsigned int i = 0; i < count; ++i)
    addresses[i] = walk.next();
  return count == 0 || addresses[0] != 0 ? 0 : -1;
}
