// The gate that fork() closes: it waits until no thread is inside, and lets none in until it is
// over, so that a child never inherits a lock of the library that another thread holds.
//
// Every lock of the library enters the gate before it is taken and leaves it after it was released.
// Modules name no lock and no order: whatever the order of the locks, a thread inside gets to the
// end of what it does, because a thread that is inside already may always enter again.
#ifndef VORN_BASE_FORK_GATE_HPP
#define VORN_BASE_FORK_GATE_HPP

namespace vorn {

// Waits while a fork is under way. Calls nest.
void enter_fork_gate();
void leave_fork_gate();

// A function that every child of fork() runs before its one thread goes on: it forgets what was
// another thread's or the parent's. Defined at namespace scope, once for each module.
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
