// Declares the gate that fork() closes. fork() waits until no thread is inside, and lets none in
// until it is over, so that a child never inherits a lock that another thread holds.
//
// A thread enters the gate before it takes a lock of the library, and leaves it after it releases
// the lock. No module needs to know other modules' locks or their order: a thread that is inside
// may always enter again, and so can finish.
// SPDX-License-Identifier: Apache-2.0
#ifndef VORN_BASE_FORK_GATE_HPP
#define VORN_BASE_FORK_GATE_HPP

namespace vorn {

// Waits during a fork. Calls nest.
void enter_fork_gate();
void leave_fork_gate();

// Registers a function that every child of fork() runs before fork() returns there. The function
// drops state that belongs to other threads or to the parent. Defined at namespace scope, one per
// module.
class ForkChild {
public:
  explicit ForkChild(void (*run)());
  ForkChild(const ForkChild &) = delete;
  ForkChild &operator=(const ForkChild &) = delete;

  static void run_all();

private:
  void (*run_)();
  ForkChild *next_;
};

} // namespace vorn

#endif
